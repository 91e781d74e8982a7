#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

/// Joins `directory` and `name` with one "/" between them, into the `size` bytes at `out`. `name`
/// may stand in `out`.
///
/// Below the root directory a name that begins with "/" gets two of them, which the kernel reads as
/// one.
/// @return false with `out` untouched when the joined path does not fit.
inline bool join_path(char* out, std::size_t size, std::string_view directory,
                      std::string_view name) noexcept {
  const bool add_slash = !directory.empty() && !directory.ends_with('/') && !name.starts_with('/');
  const std::size_t name_at = directory.size() + (add_slash ? 1 : 0);
  if (name_at + name.size() >= size) return false;
  std::memmove(out + name_at, name.data(), name.size());
  std::memcpy(out, directory.data(), directory.size());
  if (add_slash) out[directory.size()] = '/';
  out[name_at + name.size()] = '\0';
  return true;
}
