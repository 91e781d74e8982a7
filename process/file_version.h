#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>

/// What tells one content of a file from the next: the file itself, its size, and when it was last
/// written to. Not when its owner or mode changed.
struct file_version {
  dev_t device;
  ino_t inode;
  off_t size;
  timespec modified;

  [[nodiscard]] bool is_same_file_as(const file_version& other) const noexcept;
  bool operator==(const file_version& other) const noexcept;

  /// @return none when there is no such file, or it cannot be looked at.
  static std::optional<file_version> of(const char* path) noexcept;
};
