#pragma once

/// Appends one entry to the supervisor's log: `text`, which carries its own line end, and then the
/// line with the time. Does nothing while there is no log. May be called from any thread.
void append_entry(const char* text);
