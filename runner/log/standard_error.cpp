#include "runner/log/standard_error.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <tuple>

#include "common/misc/unique_fd.h"

namespace runner {
namespace {

/// A pipe or terminal by a way of its own, on which nobody waits: the one that is there is shared
/// with the program, which may fill it at any moment, and which decides whether it waits there.
unique_fd open_own_way(const struct stat& status) {
  if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return {};
  return unique_fd(::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
}

bool takes_something(int fd) {
  pollfd request{fd, POLLOUT, 0};
  return ::poll(&request, 1, 0) > 0 && (request.revents & POLLOUT) != 0;
}

}  // namespace

void write_standard_error(std::string_view line) {
  std::string text(line);
  if (text.size() > PIPE_BUF) {
    // What is longer may get into a pipe in parts.
    text.resize(PIPE_BUF);
    text.back() = '\n';
  }
  struct stat status {};
  if (::fstat(STDERR_FILENO, &status) != 0) return;
  if (S_ISSOCK(status.st_mode)) {
    std::ignore = ::send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return;
  }
  const unique_fd own = open_own_way(status);
  const int fd = own.valid() ? own.get() : STDERR_FILENO;
  if (!takes_something(fd)) return;
  if (::write(fd, text.data(), text.size()) < 0) {
    // There is nobody to tell.
  }
}

}  // namespace runner
