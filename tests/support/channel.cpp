#include "tests/support/channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace {

void set_waiting(int fd, bool waits) {
  const int flags = ::fcntl(fd, F_GETFL);
  ::fcntl(fd, F_SETFL, waits ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
}

channel connected(const int (&ends)[2]) {
  set_waiting(ends[0], false);
  return {unique_fd(ends[0]), unique_fd(ends[1])};
}

}  // namespace

channel make_pipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  return connected(ends);
}

channel make_socket() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::runtime_error("socketpair");
  }
  return connected(ends);
}

channel make_terminal() {
  unique_fd reader(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
  if (!reader.valid() || ::grantpt(reader.get()) != 0 || ::unlockpt(reader.get()) != 0) {
    throw std::runtime_error("no terminal");
  }
  unique_fd writer(::open(::ptsname(reader.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios settings{};
  if (::tcgetattr(writer.get(), &settings) != 0) throw std::runtime_error("tcgetattr");
  ::cfmakeraw(&settings);
  ::tcsetattr(writer.get(), TCSANOW, &settings);
  return {std::move(reader), std::move(writer)};
}

std::string read_all(int fd) {
  std::string text;
  char part[65536];
  for (ssize_t got = 0; (got = ::read(fd, part, sizeof part)) > 0;)
    text.append(part, static_cast<std::size_t>(got));
  return text;
}

std::string read_all(const channel& from) {
  return read_all(from.reader.get());
}

std::size_t fill(const channel& to) {
  const int fd = to.writer.get();
  set_waiting(fd, false);
  std::size_t filled = 0;
  while (::write(fd, "#", 1) == 1)
    ++filled;
  set_waiting(fd, true);
  return filled;
}
