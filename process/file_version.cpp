#include "process/file_version.h"

#include <sys/stat.h>

#include <algorithm>

bool file_version::is_same_file_as(const file_version& other) const noexcept {
  return device == other.device && inode == other.inode;
}

bool file_version::operator==(const file_version& other) const noexcept {
  return is_same_file_as(other) && size == other.size && modified.tv_sec == other.modified.tv_sec &&
         modified.tv_nsec == other.modified.tv_nsec;
}

std::chrono::nanoseconds file_version::left_of(std::chrono::nanoseconds time) const noexcept {
  using std::chrono::nanoseconds;
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  // Only then does the difference fit: files may have any time.
  if (modified.tv_sec > now.tv_sec || modified.tv_sec < now.tv_sec - 1) return nanoseconds::zero();
  const nanoseconds age = std::chrono::seconds(now.tv_sec - modified.tv_sec) +
                          nanoseconds(now.tv_nsec - modified.tv_nsec);
  return age < nanoseconds::zero() ? nanoseconds::zero()
                                   : std::max(time - age, nanoseconds::zero());
}

std::optional<file_version> file_version::of(const char* path) noexcept {
  struct stat status {};
  if (path == nullptr || ::stat(path, &status) != 0) return std::nullopt;
  return file_version{status.st_dev, status.st_ino, status.st_size, status.st_mtim};
}
