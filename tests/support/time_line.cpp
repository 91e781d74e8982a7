#include "tests/support/time_line.h"

#include <cstddef>

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
  std::string masked;
  while (!log.empty()) {
    const std::size_t end = log.find('\n');
    const std::string_view line = log.substr(0, end == std::string_view::npos ? end : end + 1);
    masked += is_time_line(line) ? std::string_view("<time>\r\n") : line;
    log.remove_prefix(line.size());
  }
  return masked;
}
