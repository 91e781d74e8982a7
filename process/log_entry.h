#pragma once

/// Appends one entry to the supervisor's log: `text`, which carries its own line end, and then the
/// line with the time. Does nothing while there is no log. Called where configurations are loaded,
/// and before: by one thread at a time.
void append_entry(const char* text);
