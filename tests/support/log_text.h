#pragma once

#include <string>
#include <string_view>

/// Whether `text` has the form of one time line of the log: "2026-11-15 10:02:03\r\n".
bool is_time_line(std::string_view text);

/// The text of a log with "<time>\r\n" in place of each time line, so that it can be compared.
std::string with_times_masked(std::string_view log);

/// The same with "<pid>" in place of the process id in each line of a start or launch, too.
std::string with_times_and_pids_masked(std::string_view log);
