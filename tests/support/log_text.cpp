#include "tests/support/log_text.h"

#include <algorithm>
#include <cstddef>

namespace {

/// Replaces each line, its end included, by what `change` makes of it.
template <typename Change>
std::string with_lines_changed(std::string_view text, Change change) {
  std::string changed;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, std::min(text.find('\n'), text.size() - 1) + 1);
    changed += change(line);
    text.remove_prefix(line.size());
  }
  return changed;
}

std::string with_time_masked(std::string_view line) {
  return std::string(is_time_line(line) ? "<time>\r\n" : line);
}

std::string with_pid_masked(std::string_view line) {
  for (const std::string_view beginning : {"keelmond Start PID: ", "launched sub process PID: "}) {
    if (!line.starts_with(beginning)) continue;
    const std::size_t end = line.find_first_not_of("0123456789", beginning.size());
    if (end == std::string_view::npos || end == beginning.size()) continue;
    return std::string(beginning) + "<pid>" + std::string(line.substr(end));
  }
  return std::string(line);
}

}  // namespace

bool is_time_line(std::string_view text) {
  constexpr std::string_view kForm = "dddd-dd-dd dd:dd:dd\r\n";
  if (text.size() != kForm.size()) return false;
  for (std::size_t i = 0; i < kForm.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (kForm[i] == 'd' ? !digit : text[i] != kForm[i]) return false;
  }
  return true;
}

std::string with_times_masked(std::string_view log) {
  return with_lines_changed(log, with_time_masked);
}

std::string with_times_and_pids_masked(std::string_view log) {
  return with_lines_changed(with_times_masked(log), with_pid_masked);
}
