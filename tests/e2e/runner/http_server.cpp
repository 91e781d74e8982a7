#include "tests/e2e/runner/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <filesystem>
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

bool has_python() {
  return std::filesystem::exists("/usr/bin/python3");
}

std::string add_http_server(runner_place& place) {
  return place.path_of(place.site().add_executable(
      "#!/usr/bin/python3\n"
      "import http.server, os, socketserver, sys, time\n"
      "class handler(http.server.BaseHTTPRequestHandler):\n"
      "    def do_GET(self):\n"
      "        self.send_response(503 if os.path.exists('ill') else 200)\n"
      "        self.end_headers()\n"
      "        open('asked', 'a').write(self.path + '\\n')\n"
      "    def log_message(self, *words): pass\n"
      "socketserver.TCPServer.allow_reuse_address = True\n"
      "server = socketserver.TCPServer(('127.0.0.1', int(sys.argv[1])), handler)\n"
      "server.timeout = 0.02\n"
      "while not os.path.exists('deaf'): server.handle_request()\n"
      "server.server_close()\n"
      "while True: time.sleep(1000)\n"));
}
