#include "control/proc/small_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "common/misc/unique_fd.h"

namespace control {

bool read_small_file(int dir, const char* path, std::string& out) {
  out.clear();
  const unique_fd file(::openat(dir, path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.valid()) return false;
  char chunk[4096];
  for (;;) {
    const ssize_t got = ::read(file.get(), chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) out.clear();
    if (got <= 0) return got == 0;
    out.append(chunk, static_cast<std::size_t>(got));
  }
}

}  // namespace control
