#pragma once

#include <sstream>
#include <string>

/// How the INI library turns text into numbers and numbers into text.
///
/// The names are those of functions of the standard library that throw for a text without a number
/// or print a number another way, and a call with a standard string as its argument would see both.
/// So these have a namespace of their own, and internal linkage, and are always called by their
/// full name.
namespace ini_number {

/// Extracts one number as a stream does: white space is skipped, the longest valid beginning
/// counts, what is out of range becomes the nearest number of the type.
/// @return 0 when the text does not begin with a number or holds nothing but white space.
template <typename Number>
[[nodiscard]] static Number extract(const std::string& text) {
  Number number = 0;  // stays when there is no character to extract
  std::istringstream stream(text);
  stream >> number;
  return number;
}

[[nodiscard]] static inline int stoi(const std::string& text) {
  return extract<int>(text);
}

[[nodiscard]] static inline long stol(const std::string& text) {
  return extract<long>(text);
}

[[nodiscard]] static inline float stof(const std::string& text) {
  return extract<float>(text);
}

[[nodiscard]] static inline double stod(const std::string& text) {
  return extract<double>(text);
}

/// Prints one number as a stream does: decimal, floating numbers with 6 significant digits.
template <typename Number>
[[nodiscard]] static std::string to_string(Number number) {
  std::ostringstream stream;
  stream << number;
  return stream.str();
}

}  // namespace ini_number
