#include "runner/supervise/notify_socket.h"

#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <tuple>

#include "common/misc/decimal.h"
#include "common/misc/duration.h"
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

/// One line for a terminal, of a length that somebody reads.
std::string readable(std::string_view text) {
  constexpr std::size_t kShown = 200;
  std::string line(text.substr(0, kShown));
  for (char& c : line) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = '?';
  }
  return line;
}

std::optional<std::chrono::milliseconds> read_microseconds(std::string_view text) {
  const auto count = take_digits(text);
  if (!count || !text.empty()) return {};
  constexpr auto kMost = static_cast<std::uint64_t>(kLongestDuration.count());
  const std::uint64_t rounded_up = *count / 1000 + (*count % 1000 == 0 ? 0 : 1);
  return std::chrono::milliseconds(std::min(rounded_up, kMost));
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

void read_notice(std::string_view message, notice& out) {
  constexpr std::string_view kStatus = "STATUS=";
  constexpr std::string_view kMoreTime = "EXTEND_TIMEOUT_USEC=";
  while (!message.empty()) {
    const std::size_t end = std::min(message.find('\n'), message.size());
    const std::string_view line = message.substr(0, end);
    message.remove_prefix(std::min(end + 1, message.size()));
    if (line == "READY=1") out.is_ready = true;
    if (line.starts_with(kStatus)) out.status = readable(line.substr(kStatus.size()));
    if (!line.starts_with(kMoreTime)) continue;
    if (const auto time = read_microseconds(line.substr(kMoreTime.size()))) out.more_time = time;
  }
}

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

notice notify_socket::take(pid_t program) {
  // Anybody may send here; what is left has its turn when everything else has had one.
  constexpr int kMostAtOnce = 16;
  notice said;
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
    if (got < 0) return said;
    const pid_t sender = sender_of(message);
    if (sender > 0 && is_of_program(sender, program))
      read_notice({text, static_cast<std::size_t>(got)}, said);
  }
  return said;
}

}  // namespace runner
