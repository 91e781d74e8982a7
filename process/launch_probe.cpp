#include "process/launch_probe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/misc/unique_fd.h"

namespace launch_probe {
namespace {

/// Reads the beginning of a small file of /proc.
/// @return false when it cannot be read.
template <std::size_t N>
bool read_start(const char* path, char (&text)[N]) noexcept {
  const unique_fd file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) return false;
  const ssize_t got = ::read(file.get(), text, N - 1);
  if (got < 0) return false;
  text[got] = '\0';
  return true;
}

/// The process's name as the kernel keeps it, with a line end; at most 15 characters.
bool read_name(long pid, char (&name)[32]) noexcept {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%ld/comm", pid);
  return read_start(path, name);
}

/// The first child of a process with one thread; 0 when it has none, -1 when that cannot be told.
long first_child(long pid) noexcept {
  char path[64];
  char children[64];
  std::snprintf(path, sizeof path, "/proc/%ld/task/%ld/children", pid, pid);
  return read_start(path, children) ? std::strtol(children, nullptr, 10) : -1;
}

}  // namespace

bool is_findable(pid_t copy) noexcept {
  char copy_name[32];
  char name[32];
  if (!read_name(copy, copy_name)) return true;
  // Copy, shell, program: a shell may also become the program itself.
  long process = copy;
  for (int depth = 0; depth < 3; ++depth) {
    process = first_child(process);
    if (process < 0) return true;
    if (process == 0 || !read_name(process, name)) return false;
    if (std::strcmp(name, copy_name) != 0 && std::strcmp(name, "sh\n") != 0) return true;
  }
  return false;
}

}  // namespace launch_probe
