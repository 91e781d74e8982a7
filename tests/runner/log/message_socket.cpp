#include "tests/runner/log/message_socket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <stdexcept>
#include <utility>

#include "common/misc/bounded_text.h"

message_socket::message_socket(std::string path)
    : path_(std::move(path)), fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!copy_bounded(address.sun_path, path_.c_str()) ||
      ::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error("cannot listen at " + path_);
}

message_socket::~message_socket() {
  ::unlink(path_.c_str());
}

std::vector<std::string> message_socket::messages() const {
  std::vector<std::string> all;
  std::string buffer(256 * 1024, '\0');
  for (ssize_t count; (count = ::recv(fd_.get(), buffer.data(), buffer.size(), 0)) >= 0;)
    all.push_back(buffer.substr(0, static_cast<std::size_t>(count)));
  return all;
}
