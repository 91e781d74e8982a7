#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

/// Copies `text` into the `size` bytes at `out` and terminates it.
///
/// The rest of the buffer is zeroed. A text that does not fit is cut at size - 1 characters;
/// a null `text` counts as empty.
/// @return whether the whole text fitted. Nothing is written when `size` is 0.
inline bool copy_bounded(char* out, std::size_t size, const char* text) noexcept {
  if (size == 0) return false;
  const std::string_view whole = text == nullptr ? "" : text;
  const std::size_t kept = whole.size() < size ? whole.size() : size - 1;
  std::memcpy(out, whole.data(), kept);
  std::memset(out + kept, 0, size - kept);
  return kept == whole.size();
}

/// The same, for a buffer whose size the compiler knows.
template <std::size_t N>
bool copy_bounded(char (&out)[N], const char* text) noexcept {
  return copy_bounded(out, N, text);
}
