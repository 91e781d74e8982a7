#include "runner/supervise/probe.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>

#include "common/misc/unique_fd.h"
#include "tests/support/scratch_dir.h"

using runner::probe;
using runner::probe_answer;
using runner::probe_settings;
using kind = runner::probe_settings::kind;

namespace {

/// As long as a slow machine may take for an event.
constexpr int kLimit = 30'000;

/// Somebody who listens, at a port of this machine or at a path.
class listener final {
 public:
  listener() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    port_ = ntohs(address.sin_port);
  }
  explicit listener(const std::string& path)
      : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }

  void listen(int waiting = 16) const { EXPECT_EQ(::listen(socket_.get(), waiting), 0); }
  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] unique_fd accept() const {
    return unique_fd(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

 private:
  unique_fd socket_;
  std::uint16_t port_ = 0;
};

probe_settings to_port(kind how, std::uint16_t port) {
  probe_settings what;
  what.how = how;
  what.host = "127.0.0.1";
  what.port = port;
  what.path = "/health?deep=1";
  return what;
}

probe_settings to_path(kind how, const std::string& path) {
  probe_settings what;
  what.how = how;
  what.path = path;
  return what;
}

/// Goes on once there is something to go on with.
probe_answer go_on(probe& question) {
  pollfd request = question.request();
  EXPECT_EQ(::poll(&request, 1, kLimit), 1);
  return question.go_on();
}

/// Asks until there is an answer.
probe_answer ask(const probe_settings& what) {
  probe question;
  probe_answer answer = question.begin(what);
  while (answer == probe_answer::pending)
    answer = go_on(question);
  EXPECT_EQ(question.request().fd, -1);
  return answer;
}

/// A question by HTTP whose answer the test gives.
class http_question final {
 public:
  http_question() {
    server_.listen();
    EXPECT_EQ(question_.begin(to_port(kind::http, server_.port())), probe_answer::pending);
    while (question_.request().events != POLLIN)
      EXPECT_EQ(go_on(question_), probe_answer::pending);
    connection_ = server_.accept();
  }

  [[nodiscard]] std::string request() const {
    char text[1024];
    const ssize_t got = ::read(connection_.get(), text, sizeof text);
    return {text, static_cast<std::size_t>(got > 0 ? got : 0)};
  }
  void send(std::string_view text) const {
    EXPECT_EQ(::write(connection_.get(), text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
  }
  void close() {
    // What has not been read would be answered by a reset.
    std::ignore = request();
    connection_.reset();
  }
  probe_answer next() { return go_on(question_); }
  [[nodiscard]] probe& question() { return question_; }

 private:
  listener server_;
  probe question_;
  unique_fd connection_;
};

/// What an answer is worth that is sent at once, and then no more.
probe_answer worth(std::string_view text) {
  http_question http;
  http.send(text);
  http.close();
  probe_answer answer = http.next();
  while (answer == probe_answer::pending)
    answer = http.next();
  return answer;
}

}  // namespace

TEST(probe, a_port_answers_while_somebody_listens_there) {
  const listener server;
  EXPECT_EQ(ask(to_port(kind::tcp, server.port())), probe_answer::no);
  server.listen();
  EXPECT_EQ(ask(to_port(kind::tcp, server.port())), probe_answer::yes);
}

TEST(probe, a_host_may_be_one_of_version_six_and_has_to_be_a_number) {
  probe_settings what = to_port(kind::tcp, 1);
  what.host = "::1";
  EXPECT_EQ(ask(what), probe_answer::no);
  what.host = "localhost";
  EXPECT_EQ(ask(what), probe_answer::no);
}

TEST(probe, a_socket_of_the_file_system_answers_while_somebody_listens_there) {
  const scratch_dir place;
  const probe_settings what = to_path(kind::unix_socket, place.file("socket"));
  EXPECT_EQ(ask(what), probe_answer::no);
  const listener server(what.path);
  EXPECT_EQ(ask(what), probe_answer::no);
  server.listen();
  EXPECT_EQ(ask(what), probe_answer::yes);
}

TEST(probe, a_socket_with_no_room_for_one_more_is_asked_again_later) {
  const scratch_dir place;
  const probe_settings what = to_path(kind::unix_socket, place.file("socket"));
  const listener server(what.path);
  server.listen(0);
  probe first;
  EXPECT_EQ(first.begin(what), probe_answer::yes);
  probe second;
  EXPECT_EQ(second.begin(what), probe_answer::no);
  EXPECT_TRUE(server.accept().valid());
  EXPECT_EQ(second.begin(what), probe_answer::yes);
}

TEST(probe, a_path_that_no_socket_can_have_is_no_answer) {
  for (const std::size_t length : {107U, 108U, 109U, 5000U}) {
    const std::string path = "/" + std::string(length - 1, 'x');
    EXPECT_EQ(ask(to_path(kind::unix_socket, path)), probe_answer::no) << length;
  }
}

TEST(probe, a_file_answers_by_being_there) {
  const scratch_dir place;
  const probe_settings what = to_path(kind::file, place.file("up"));
  EXPECT_EQ(ask(what), probe_answer::no);
  place.write("up", "");
  EXPECT_EQ(ask(what), probe_answer::yes);
}

TEST(probe, what_others_ask_is_no_question_here) {
  for (const kind how : {kind::none, kind::command, kind::notify})
    EXPECT_EQ(ask(to_path(how, "/")), probe_answer::no);
}

TEST(probe, http_asks_for_the_path_and_for_the_end_of_the_connection) {
  const http_question http;
  EXPECT_EQ(http.request(),
            "GET /health?deep=1 HTTP/1.0\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
}

TEST(probe, http_is_answered_well_by_success_and_by_another_place) {
  for (const char* const good :
       {"HTTP/1.1 200 OK\r\n\r\n", "HTTP/1.0 204 No Content\r\nA: b\r\n\r\n",
        "HTTP/1.1 301 Moved Permanently\r\n\r\n", "HTTP/2 302 Found\r\n\r\n"})
    EXPECT_EQ(worth(good), probe_answer::yes) << good;
  for (const char* const bad :
       {"", "HTTP/1.1 404 Not Found\r\n\r\n", "HTTP/1.1 503 Service Unavailable\r\n\r\n",
        "HTTP/1.1 100 Continue\r\n\r\n", "HTTP/1.1 2", "HTTP/1.1",
        "SSH-2.0-OpenSSH_9.2p1 200 OK\r\n", "+PONG 200 is not what was asked for\r\n"})
    EXPECT_EQ(worth(bad), probe_answer::no) << bad;
}

TEST(probe, http_waits_for_an_answer_that_comes_in_pieces) {
  http_question http;
  for (const char* const piece : {"HT", "TP/1.1 2", "00"}) {
    http.send(piece);
    EXPECT_EQ(http.next(), probe_answer::pending) << piece;
  }
  http.send(" OK\r\n");
  EXPECT_EQ(http.next(), probe_answer::yes);
}

TEST(probe, http_where_nobody_listens_is_no_answer) {
  const listener server;
  EXPECT_EQ(ask(to_port(kind::http, server.port())), probe_answer::no);
}

TEST(probe, is_given_up_without_a_trace) {
  http_question http;
  const int fd = http.question().request().fd;
  EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  http.question().cancel();
  EXPECT_EQ(http.question().request().fd, -1);
  EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}
