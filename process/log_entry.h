#pragma once

/// Appends one entry to the supervisor's log: `text`, which carries its own line end, and then the
/// line with the time. The time comes second on purpose: who reads the log takes it for the message
/// above it. Does nothing while there is no log. May be called from any thread.
void append_entry(const char* text);
