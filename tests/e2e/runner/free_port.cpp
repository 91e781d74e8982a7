#include "tests/e2e/runner/free_port.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <random>

#include "common/misc/unique_fd.h"

namespace {

constexpr std::uint16_t kFirst = 10000;
constexpr std::uint16_t kCount = 20000;

bool is_free(std::uint16_t port) {
  const unique_fd listening(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return ::bind(listening.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

std::string free_port() {
  // Tests that run at the same time begin anywhere.
  static unsigned next = std::random_device{}();
  for (int tries = 0; tries < kCount; ++tries) {
    const auto port = static_cast<std::uint16_t>(kFirst + next++ % kCount);
    if (is_free(port)) return std::to_string(port);
  }
  return "";
}
