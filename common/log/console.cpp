#include "common/log/console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace console {
namespace {

/// How a line reaches the file behind standard output without waiting.
enum class channel {
  polled,    ///< ask whether there is room, then write
  socket,    ///< the call itself says that it must not wait
  reopened,  ///< through an open file description of our own that does not block
};

struct target {
  channel kind;
  int fd;
};

/// Written by `open` before any other thread exists, only read afterwards.
target standard_output{channel::polled, STDOUT_FILENO};

/// How long a line waits at a time for another writer to be done with a terminal, or for the reader
/// of a pipe, and how often.
constexpr int kTurnMilliseconds = 20;
constexpr int kMostTurns = 100;

/// Whether waiting was in vain the last time: then nobody reads, and lines are lost without a wait
/// until one gets through. Any thread writes and reads it, in any order: a stale value costs one
/// wait or one line.
std::atomic<bool> reader_is_stuck{false};

/// Writes what is new only: each page that is changed after a fork is one more for that child.
void set_reader_is_stuck(bool stuck) noexcept {
  if (reader_is_stuck.load(std::memory_order_relaxed) != stuck)
    reader_is_stuck.store(stuck, std::memory_order_relaxed);
}

/// The flag that keeps a writer from waiting belongs to the open file description, which is shared
/// with the shell that started us and with every supervised program. So it is set on a second
/// description of the same pipe or terminal, never on theirs. A plain file is not opened again: it
/// never makes a writer wait, and a second description would write from its beginning.
target find_target() noexcept {
  struct stat status {};
  if (::fstat(STDOUT_FILENO, &status) != 0) return {channel::polled, STDOUT_FILENO};
  if (S_ISSOCK(status.st_mode)) return {channel::socket, STDOUT_FILENO};
  if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
    const int fd = ::open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd >= 0) return {channel::reopened, fd};
  }
  return {channel::polled, STDOUT_FILENO};
}

/// Whether there is room; errno is EAGAIN when there is none.
bool ask_for_room(int fd) noexcept {
  pollfd request{fd, POLLOUT, 0};
  if (::poll(&request, 1, 0) == 1 && (request.revents & POLLOUT) != 0) return true;
  // An EINTR from before the call would have the line offered again for ever.
  errno = EAGAIN;
  return false;
}

ssize_t write_some(const target& out, const char* text, std::size_t length) noexcept {
  if (out.kind == channel::socket) {
    return ::send(out.fd, text, length, MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  if (out.kind == channel::polled && !ask_for_room(out.fd)) return -1;
  return ::write(out.fd, text, length);
}

/// A refusal may only mean that the reader is late. A terminal, which takes one writer at a time,
/// also refuses while another one is at it. Waits for that to be over.
/// @return whether the line should be offered again.
bool wait_for_turn(const target& out) noexcept {
  if (out.kind != channel::reopened || reader_is_stuck.load(std::memory_order_relaxed))
    return false;
  pollfd request{out.fd, POLLOUT, 0};
  const bool free = ::poll(&request, 1, kTurnMilliseconds) == 1 && (request.revents & POLLOUT) != 0;
  if (!free) set_reader_is_stuck(true);
  return free;
}

/// A terminal may take a line in pieces, so the rest is offered again until it is refused.
void write_whole(const target& out, const char* text, std::size_t length) noexcept {
  const int saved_errno = errno;
  int turns = 0;
  while (length > 0) {
    const ssize_t written = write_some(out, text, length);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EAGAIN && ++turns <= kMostTurns && wait_for_turn(out)) continue;
    if (written <= 0) break;
    if (out.kind == channel::reopened) set_reader_is_stuck(false);
    text += written;
    length -= static_cast<std::size_t>(written);
  }
  errno = saved_errno;
}

}  // namespace

void open() noexcept {
  standard_output = find_target();
}

void print(const char* format, ...) noexcept {
  char line[kMaxLine + 1];
  va_list arguments;
  va_start(arguments, format);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is right above.
  const int length = std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  if (length > 0)
    write_whole(standard_output, line, std::min(static_cast<std::size_t>(length), sizeof line - 1));
}

void print_line(const char* text) noexcept {
  print("%s\n", text);
}

void print_as_format(const char* format) noexcept {
  char line[kMaxLine];
  std::size_t length = 0;
  for (const char* next = format; *next != '\0' && length < sizeof line; ++next) {
    line[length++] = *next;
    if (next[0] == '%' && next[1] == '%') ++next;
  }
  write_whole(standard_output, line, length);
}

void report_error(const char* what) noexcept {
  report_failure(what, std::strerror(errno));
}

void report_failure(const char* what, const char* why) noexcept {
  char line[kMaxLine + 1];
  const int length = std::snprintf(line, sizeof line, "%s: %s\n", what, why);
  if (length > 0) {
    write_whole({channel::polled, STDERR_FILENO}, line,
                std::min(static_cast<std::size_t>(length), sizeof line - 1));
  }
}

}  // namespace console
