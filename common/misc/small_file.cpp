#include "common/misc/small_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "common/misc/unique_fd.h"

namespace {

constexpr ssize_t kChunk = 4096;

/// Appends what one read gives. @return its length, 0 at the end, -1 with errno set on failure, and
/// EFBIG when `out` has come to be larger than `most`.
ssize_t append_chunk(int fd, std::string& out, std::size_t most) {
  char chunk[kChunk];
  ssize_t got = 0;
  do {
    got = ::read(fd, chunk, sizeof chunk);
  } while (got < 0 && errno == EINTR);
  if (got > 0) out.append(chunk, static_cast<std::size_t>(got));
  if (out.size() <= most) return got;
  errno = EFBIG;
  return -1;
}

}  // namespace

bool read_small_file(int dir, const char* path, std::string& out) {
  out.clear();
  const unique_fd file(::openat(dir, path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.valid()) return false;
  for (;;) {
    const ssize_t got = append_chunk(file.get(), out, kLargestSmallFile);
    // The kernel breaks a list between two items, so a read that does not fill the buffer need not
    // be the last.
    if (got > kChunk / 2) continue;
    if (got < 0) out.clear();
    return got >= 0;
  }
}

bool read_to_end(int fd, std::string& out, std::size_t most) {
  for (;;) {
    const ssize_t got = append_chunk(fd, out, most);
    if (got <= 0) return got == 0;
  }
}

bool write_whole(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written == 0) errno = ENOSPC;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}
