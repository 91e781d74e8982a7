#include "control/check/check_config.h"

#include <regex.h>

#include <algorithm>
#include <string_view>

namespace control {

std::vector<finding> check_config(const check_subject& subject) {
  findings found;
  check_lines(subject.document, found);
  check_list(subject, found);
  check_programs(subject, found);
  check_program_files(subject, found);
  check_site(subject, found);
  return found.sorted();
}

std::size_t line_of(const ini_document& document, const std::string& section,
                    const std::string& key) {
  const std::ptrdiff_t line = document.find(section, key);
  if (line >= 0) return static_cast<std::size_t>(line) + 1;
  return static_cast<std::size_t>(document.find_header(section) + 1);
}

bool matches_as_pattern(const std::string& name, const std::string& process_name) {
  // Most names are no patterns at all, and there may be thousands to compare with thousands.
  const bool is_literal = std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
           c == '-';
  });
  if (is_literal) return process_name.find(name) != std::string::npos;
  regex_t pattern;
  if (::regcomp(&pattern, name.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return false;
  const bool matches = ::regexec(&pattern, process_name.c_str(), 0, nullptr, 0) == 0;
  ::regfree(&pattern);
  return matches;
}

bool is_plain_word(std::string_view text) {
  constexpr std::string_view kPlain = "/._+@:,=-%";
  // "~" at the beginning would be expanded; it is not among the plain ones anywhere.
  return std::all_of(text.begin(), text.end(), [&](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           static_cast<unsigned char>(c) >= 0x80 || kPlain.find(c) != std::string_view::npos;
  });
}

}  // namespace control
