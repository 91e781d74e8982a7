#include "common/misc/small_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "common/misc/unique_fd.h"

bool read_small_file(int dir, const char* path, std::string& out) {
  out.clear();
  const unique_fd file(::openat(dir, path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.valid()) return false;
  if (read_to_end(file.get(), out)) return true;
  out.clear();
  return false;
}

bool read_to_end(int fd, std::string& out) {
  char chunk[4096];
  for (;;) {
    const ssize_t got = ::read(fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return got == 0;
    out.append(chunk, static_cast<std::size_t>(got));
  }
}

bool write_whole(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}
