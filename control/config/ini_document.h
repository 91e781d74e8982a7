#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "common/inifile/ini_line.h"

namespace control {

/// One line of a file with all its bytes, and what the daemon's rules make of it.
struct document_line {
  std::string text;  ///< With its line end, if it has one.
  ini_line::meaning meaning = ini_line::meaning::none;
  bool opens = false;        ///< A header that starts a section.
  std::string section;       ///< The section that it belongs to; a header belongs to its own.
  std::string key;           ///< Of an assignment, trimmed.
  std::string value;         ///< Of an assignment, trimmed.
  std::size_t value_at = 0;  ///< Where the value begins in `text`.
};

/// A configuration file with everything that the parser forgets: comments, blank lines, order,
/// blanks and line ends. Lines that nobody changes keep their bytes.
///
/// What a line means is decided by the functions with which the daemon decides it.
class ini_document final {
 public:
  explicit ini_document(std::string_view text);

  [[nodiscard]] std::string text() const;
  [[nodiscard]] const std::vector<document_line>& lines() const { return lines_; }

  /// The line whose value counts: the last assignment of the key. -1 when there is none.
  [[nodiscard]] std::ptrdiff_t find(std::string_view section, std::string_view key) const;
  /// The line of the first header that starts the section; -1 when there is none.
  [[nodiscard]] std::ptrdiff_t find_header(std::string_view section) const;
  /// The last line that is an assignment of the section or its header; -1 when there is neither.
  [[nodiscard]] std::ptrdiff_t last_of(std::string_view section) const;

  /// Replaces the value of an assignment; the blanks around it stay.
  void replace_value(std::size_t line, std::string_view value);
  /// Replaces the key of an assignment.
  void replace_key(std::size_t line, std::string_view key);
  /// Puts `text` (without a line end) on a line of its own behind `line`, with that line's end; -1
  /// puts it at the top.
  void insert_after(std::ptrdiff_t line, std::string_view text);
  void append(std::string_view text) { insert_after(std::ssize(lines_) - 1, text); }
  void erase(std::size_t first, std::size_t count);

 private:
  void interpret();

  std::vector<document_line> lines_;
};

}  // namespace control
