#include "runner/supervise/notify_socket.h"

#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <tuple>

#include "runner/file/process_stat.h"

namespace runner {
namespace {

/// How far up an ancestor is looked for.
constexpr int kHighest = 64;

bool is_of_program(pid_t sender, pid_t program) {
  if (::getsid(sender) == program) return true;
  for (int height = 0; height < kHighest && sender > 1; ++height) {
    if (sender == program || sender == ::getpid()) return true;
    const auto stat = read_process_stat(sender);
    sender = stat ? stat->parent : 0;
  }
  return false;
}

bool says_ready(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (text.substr(0, end) == "READY=1") return true;
    if (end == std::string_view::npos) return false;
    text.remove_prefix(end + 1);
  }
  return false;
}

/// Who sent a datagram; 0 when the kernel does not say.
pid_t sender_of(msghdr& message) {
  for (cmsghdr* one = CMSG_FIRSTHDR(&message); one != nullptr; one = CMSG_NXTHDR(&message, one)) {
    if (one->cmsg_level != SOL_SOCKET || one->cmsg_type != SCM_CREDENTIALS) continue;
    ucred who{};
    std::memcpy(&who, CMSG_DATA(one), sizeof who);
    return who.pid;
  }
  return 0;
}

}  // namespace

std::string notify_socket::open() {
  unsigned random = 0;
  std::ignore = ::getrandom(&random, sizeof random, GRND_NONBLOCK);
  char name[64];
  std::snprintf(name, sizeof name, "@keelmond-run/%d/%08x", ::getpid(), random);
  address_ = name;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  // A name that begins with a zero is one of the abstract kind.
  std::memcpy(address.sun_path + 1, name + 1, address_.size() - 1);
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
  socket_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  constexpr int kOn = 1;
  const bool is_open =
      socket_.valid() &&
      ::setsockopt(socket_.get(), SOL_SOCKET, SO_PASSCRED, &kOn, sizeof kOn) == 0 &&
      ::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0;
  if (is_open) return "";
  return std::string("cannot make a socket for it: ") + std::strerror(errno);
}

bool notify_socket::is_ready(pid_t program) {
  // Anybody may send here; what is left has its turn when everything else has had one.
  constexpr int kMostAtOnce = 16;
  bool ready = false;
  for (int taken = 0; taken < kMostAtOnce; ++taken) {
    char text[4096];
    // Room for the sender and nothing else: descriptors that somebody sends along are dropped.
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    iovec part{text, sizeof text};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t got = ::recvmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return ready;
    const pid_t sender = sender_of(message);
    if (sender > 0 && is_of_program(sender, program))
      ready = says_ready({text, static_cast<std::size_t>(got)}) || ready;
  }
  return ready;
}

}  // namespace runner
