#include "common/inifile/ini_line.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace ini_line {
namespace {

/// A position or length as the format counts it; "not found" becomes -1.
std::int32_t as_index(std::size_t position) noexcept {
  return static_cast<std::int32_t>(position);
}

std::string_view trim(std::string_view text, char unwanted) noexcept {
  const std::int32_t first = as_index(text.find_first_not_of(unwanted));
  const std::int32_t last = as_index(text.find_last_not_of(unwanted));
  const std::int64_t length = std::int64_t{last} - first + 1;
  // `last > 0`, not `last >= 0`, which is part of the format: a one-character key keeps the blanks
  // before its "=", and so is another key than the bare character.
  if (first < 0 || last <= 0 || length <= 0) return text;
  return text.substr(static_cast<std::size_t>(first), static_cast<std::size_t>(length));
}

}  // namespace

std::string_view trim_func_s(std::string_view text) noexcept {
  return trim(text, ' ');
}

std::string_view trim_func_r(std::string_view text) noexcept {
  return trim(text, '\r');
}

std::string_view trim_func(std::string_view text) noexcept {
  // In this order: "[name]  \r" keeps its spaces and so is no header.
  return trim_func_r(trim_func_s(text));
}

bool is_comment_line(const char* first_char) noexcept {
  constexpr std::string_view kMarks = "#%/;@";
  return first_char != nullptr && kMarks.find(*first_char) != std::string_view::npos;
}

bool is_kept_line(std::string_view line) noexcept {
  // For good: a file that was written back holds nothing but what a load looks at.
  return as_index(line.size()) >= 2 && !is_comment_line(line.data());
}

bool is_section_start_line(std::string_view line) noexcept {
  if (line.empty()) return false;
  if (line.front() == '[' && line.back() == ']') return true;
  return line.size() >= 2 && line[line.size() - 2] == ']' && line.back() == '\r';
}

bool opens_section(std::string_view header) noexcept {
  // "[a]" and "[]" open nothing, which is part of the format: what follows belongs to the section
  // before.
  return as_index(header.find_last_not_of(']')) > 1;
}

bool is_assignment_line(std::string_view line) noexcept {
  const std::size_t equals = line.find('=');
  return equals != std::string_view::npos && equals != 0 && equals != line.size() - 1;
}

meaning classify(std::string_view line) noexcept {
  if (is_section_start_line(line)) return meaning::section;
  return is_assignment_line(line) ? meaning::assignment : meaning::none;
}

std::string_view extract_section_name(std::string_view line) noexcept {
  line.remove_prefix(std::min(line.find_first_not_of('['), line.size()));
  return line.substr(0, line.find_last_not_of(']') + 1);
}

std::string_view extract_key(std::string_view line) noexcept {
  return line.substr(0, line.find('='));
}

std::string_view extract_value(std::string_view line) noexcept {
  const std::size_t equals = line.find('=');
  return equals == std::string_view::npos ? std::string_view{} : line.substr(equals + 1);
}

}  // namespace ini_line
