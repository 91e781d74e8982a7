#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>

/// What tells one content of a file from the next: the file itself, its size, and when it was last
/// written to. Not when its owner or mode changed. A write of the same length that gives the file
/// back the time it had, or comes within the same tick of the clock, makes no difference.
struct file_version {
  dev_t device;
  ino_t inode;
  off_t size;
  timespec modified;

  [[nodiscard]] bool is_same_file_as(const file_version& other) const noexcept;
  bool operator==(const file_version& other) const noexcept;

  /// Whether a write at this moment might leave the file with the time that it has: the kernel's
  /// clock for files ticks, a hundred to a thousand times a second.
  [[nodiscard]] bool is_of_this_tick() const noexcept;

  /// @return none when there is no such file, or it cannot be looked at.
  static std::optional<file_version> of(const char* path) noexcept;
};
