#include <sys/stat.h>

#include <ctime>

// Stands in for `time` in the supervisor that the stress tests start as the fast one. While there
// is a file "clock" in the working directory, the time of day is when that was modified, so that a
// test can let the clock jump and nobody else's does.

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

std::time_t __real_time(std::time_t* out);

std::time_t __wrap_time(std::time_t* out) {
  struct stat status {};
  // This takes no descriptor, which may be short.
  if (::stat("clock", &status) != 0) return __real_time(out);
  if (out != nullptr) *out = status.st_mtime;
  return status.st_mtime;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
