#include "runner/supervise/notify_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <string>

#include "common/misc/duration.h"
#include "common/misc/unique_fd.h"

using namespace std::chrono_literals;
using runner::notice;
using runner::notify_socket;

namespace {

notice read(std::string_view message) {
  notice said;
  runner::read_notice(message, said);
  return said;
}

void send(const notify_socket& to, const std::string& message) {
  const unique_fd from(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  to.address().copy(address.sun_path, to.address().size());
  address.sun_path[0] = '\0';
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + to.address().size());
  ASSERT_EQ(::sendto(from.get(), message.data(), message.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address), size),
            static_cast<ssize_t>(message.size()));
}

}  // namespace

TEST(notice, says_what_is_known_and_nothing_else) {
  const notice said = read("MAINPID=5\nREADY=1\nSTATUS=reading 3 of 5\nWATCHDOG=1\n");
  EXPECT_TRUE(said.is_ready);
  EXPECT_EQ(said.status, "reading 3 of 5");
  EXPECT_FALSE(said.more_time);
  for (const char* const nothing : {"", "\n", "READY=0", "READY=11", "XREADY=1", "ready=1",
                                    "STATUS", "EXTEND_TIMEOUT_USEC=", "EXTEND_TIMEOUT_USEC=x",
                                    "EXTEND_TIMEOUT_USEC=-1", "EXTEND_TIMEOUT_USEC=1s"}) {
    const notice none = read(nothing);
    EXPECT_FALSE(none.is_ready || none.status || none.more_time) << nothing;
  }
}

TEST(notice, a_status_is_one_short_line) {
  EXPECT_EQ(read("STATUS=a\tb\x1b").status, "a?b?");
  EXPECT_EQ(read("STATUS=").status, "");
  EXPECT_EQ(read("STATUS=" + std::string(200, 'x')).status, std::string(200, 'x'));
  EXPECT_EQ(read("STATUS=" + std::string(201, 'x')).status, std::string(200, 'x'));
}

TEST(notice, more_time_is_rounded_up_and_never_too_much) {
  EXPECT_EQ(read("EXTEND_TIMEOUT_USEC=1").more_time, 1ms);
  EXPECT_EQ(read("EXTEND_TIMEOUT_USEC=5000000").more_time, 5s);
  EXPECT_EQ(read("EXTEND_TIMEOUT_USEC=18446744073709551615").more_time, kLongestDuration);
}

TEST(notify_socket, takes_all_that_has_been_sent_at_once) {
  notify_socket socket;
  ASSERT_EQ(socket.open(), "");
  send(socket, "STATUS=one");
  send(socket, "EXTEND_TIMEOUT_USEC=1000");
  send(socket, "STATUS=two");
  const notice said = socket.take(::getpid());
  EXPECT_FALSE(said.is_ready);
  EXPECT_EQ(said.status, "two");
  EXPECT_EQ(said.more_time, 1ms);
  EXPECT_FALSE(socket.take(::getpid()).status);
}
