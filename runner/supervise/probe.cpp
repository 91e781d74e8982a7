#include "runner/supervise/probe.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace runner {
namespace {

/// The address to connect to, of whatever family.
struct any_address {
  sockaddr_storage storage{};
  socklen_t size = 0;
};

bool make_unix_address(const std::string& path, any_address& out) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  std::memcpy(&out.storage, &address, sizeof address);
  out.size = sizeof address;
  return true;
}

bool make_network_address(const std::string& host, std::uint16_t port, any_address& out) {
  sockaddr_in four{};
  sockaddr_in6 six{};
  if (::inet_pton(AF_INET, host.c_str(), &four.sin_addr) == 1) {
    four.sin_family = AF_INET;
    four.sin_port = htons(port);
    std::memcpy(&out.storage, &four, sizeof four);
    out.size = sizeof four;
    return true;
  }
  if (::inet_pton(AF_INET6, host.c_str(), &six.sin6_addr) != 1) return false;
  six.sin6_family = AF_INET6;
  six.sin6_port = htons(port);
  std::memcpy(&out.storage, &six, sizeof six);
  out.size = sizeof six;
  return true;
}

/// "HTTP/1.1 204 ..." and the like.
bool is_good_status(const std::string& answer) {
  const std::size_t blank = answer.find(' ');
  return answer.starts_with("HTTP/") && blank != std::string::npos && blank + 3 < answer.size() &&
         (answer[blank + 1] == '2' || answer[blank + 1] == '3');
}

}  // namespace

probe_answer probe::finish(probe_answer answer) {
  socket_.reset();
  return answer;
}

probe_answer probe::begin(const probe_settings& what) {
  using kind = probe_settings::kind;
  is_http_ = what.how == kind::http;
  answer_.clear();
  switch (what.how) {
    case kind::tcp:
    case kind::http:
    case kind::unix_socket:
      return begin_connection(what);
    case kind::file:
      return ::access(what.path.c_str(), F_OK) == 0 ? probe_answer::yes : probe_answer::no;
    default:
      return probe_answer::no;
  }
}

probe_answer probe::begin_connection(const probe_settings& what) {
  any_address address;
  const bool is_made = what.how == probe_settings::kind::unix_socket
                           ? make_unix_address(what.path, address)
                           : make_network_address(what.host, what.port, address);
  if (!is_made) return probe_answer::no;
  constexpr int kFlags = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
  socket_.reset(::socket(address.storage.ss_family, kFlags, 0));
  if (!socket_.valid()) return probe_answer::no;
  if (is_http_)
    request_ =
        "GET " + what.path + " HTTP/1.0\r\nHost: " + what.host + "\r\nConnection: close\r\n\r\n";
  events_ = POLLOUT;
  if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address.storage), address.size) ==
      0)
    return is_http_ ? probe_answer::pending : finish(probe_answer::yes);
  // A socket of the file system that cannot take one more at once is busy, not dead, and no event
  // will tell when it can.
  return errno == EINPROGRESS ? probe_answer::pending : finish(probe_answer::no);
}

probe_answer probe::go_on() {
  if (events_ == POLLIN) return read_answer();
  int error = 0;
  socklen_t size = sizeof error;
  if (::getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0)
    return finish(probe_answer::no);
  return is_http_ ? send_request() : finish(probe_answer::yes);
}

probe_answer probe::send_request() {
  const ssize_t sent = ::send(socket_.get(), request_.data(), request_.size(), MSG_NOSIGNAL);
  if (sent < 0) return errno == EAGAIN ? probe_answer::pending : finish(probe_answer::no);
  request_.erase(0, static_cast<std::size_t>(sent));
  if (request_.empty()) events_ = POLLIN;
  return probe_answer::pending;
}

probe_answer probe::read_answer() {
  // Enough for the status; the rest is not looked at.
  constexpr std::size_t kStatus = 16;
  char part[256];
  const ssize_t got = ::read(socket_.get(), part, sizeof part);
  if (got < 0 && errno == EAGAIN) return probe_answer::pending;
  if (got > 0) answer_.append(part, static_cast<std::size_t>(got));
  if (got > 0 && answer_.size() < kStatus) return probe_answer::pending;
  return finish(is_good_status(answer_) ? probe_answer::yes : probe_answer::no);
}

}  // namespace runner
