#pragma once

#include <string_view>

/// The rules by which one line of an INI file is trimmed, kept, classified and taken apart.
///
/// Pure functions: the views they return point into their argument. Positions and lengths are
/// signed 32-bit numbers by definition of the format, so a line of 2 GiB or more counts as one of
/// negative length.
namespace ini_line {

/// What a kept line means to the document.
enum class meaning {
  none,        ///< kept in its place, means nothing
  section,     ///< a header, or what looks like one
  assignment,  ///< a property with a key and a value
};

/// Removes spaces (0x20 only) from both ends.
///
/// A text whose only character besides spaces is its first one stays as it is ("a   "), and so
/// does a text of nothing but spaces.
[[nodiscard]] std::string_view trim_func_s(std::string_view text) noexcept;
/// Removes carriage returns from both ends, with the same two exceptions.
[[nodiscard]] std::string_view trim_func_r(std::string_view text) noexcept;
/// Removes spaces first, then carriage returns: a space before a carriage return stays.
[[nodiscard]] std::string_view trim_func(std::string_view text) noexcept;

/// Whether a line that begins with this character is a comment. False for null.
[[nodiscard]] bool is_comment_line(const char* first_char) noexcept;
/// Whether a trimmed line belongs to the document: two characters or more, and no comment.
[[nodiscard]] bool is_kept_line(std::string_view line) noexcept;
/// Whether the line is a header: "[" first and "]" last, or "]" next to last and "\r" last.
[[nodiscard]] bool is_section_start_line(std::string_view line) noexcept;
/// Whether the properties after a header that is loaded belong to it.
[[nodiscard]] bool opens_section(std::string_view header) noexcept;
/// Whether the first "=" of the line is neither its first character nor its last.
[[nodiscard]] bool is_assignment_line(std::string_view line) noexcept;
/// Sorts a kept line; a header is never an assignment too.
[[nodiscard]] meaning classify(std::string_view line) noexcept;

/// The header without every leading "[" and every trailing "]"; nothing else is removed.
[[nodiscard]] std::string_view extract_section_name(std::string_view line) noexcept;
/// What comes before the first "=", untrimmed; the whole line when there is none.
[[nodiscard]] std::string_view extract_key(std::string_view line) noexcept;
/// What comes after the first "=", untrimmed; empty when there is none.
[[nodiscard]] std::string_view extract_value(std::string_view line) noexcept;

}  // namespace ini_line
