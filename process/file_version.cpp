#include "process/file_version.h"

#include <sys/stat.h>

bool file_version::is_same_file_as(const file_version& other) const noexcept {
  return device == other.device && inode == other.inode;
}

bool file_version::operator==(const file_version& other) const noexcept {
  return is_same_file_as(other) && size == other.size && modified.tv_sec == other.modified.tv_sec &&
         modified.tv_nsec == other.modified.tv_nsec;
}

bool file_version::is_of_this_tick() const noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return modified.tv_sec == now.tv_sec ? modified.tv_nsec >= now.tv_nsec
                                       : modified.tv_sec > now.tv_sec;
}

std::optional<file_version> file_version::of(const char* path) noexcept {
  struct stat status {};
  if (path == nullptr || ::stat(path, &status) != 0) return std::nullopt;
  return file_version{status.st_dev, status.st_ino, status.st_size, status.st_mtim};
}
