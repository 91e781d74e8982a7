#include "runner/supervise/notify_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <string>

#include "common/misc/duration.h"
#include "tests/support/channel.h"
#include "tests/support/in_child.h"

using namespace std::chrono_literals;
using runner::notice;
using runner::notify_socket;

namespace {

notice read(std::string_view message) {
  notice said;
  runner::read_notice(message, said);
  return said;
}

/// Sends a text to what NOTIFY_SOCKET says, and a descriptor along unless that is negative.
bool send(const std::string& address, std::string_view text, int along = -1) {
  const unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un there{};
  there.sun_family = AF_UNIX;
  address.copy(there.sun_path, address.size());
  there.sun_path[0] = '\0';
  iovec part{const_cast<char*>(text.data()), text.size()};
  msghdr message{};
  message.msg_name = &there;
  message.msg_namelen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof along)] = {};
  if (along >= 0) {
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof along);
    std::memcpy(CMSG_DATA(head), &along, sizeof along);
  }
  return ::sendmsg(socket.get(), &message, MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

std::ptrdiff_t count_descriptors() {
  using iterator = std::filesystem::directory_iterator;
  return std::distance(iterator("/proc/self/fd"), iterator());
}

/// Waits until there is something to be read.
bool await(int fd) {
  pollfd request{fd, POLLIN, 0};
  return ::poll(&request, 1, 30'000) == 1;
}

struct open_socket {
  open_socket() { EXPECT_EQ(socket.open(), ""); }

  notify_socket socket;
};

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
  open_socket here;
  for (const char* const text : {"STATUS=one", "EXTEND_TIMEOUT_USEC=1000", "STATUS=two"})
    EXPECT_TRUE(send(here.socket.address(), text));
  const notice said = here.socket.take(::getpid());
  EXPECT_FALSE(said.is_ready);
  EXPECT_EQ(said.status, "two");
  EXPECT_EQ(said.more_time, 1ms);
  EXPECT_FALSE(here.socket.take(::getpid()).status);
}

TEST(notify_socket, has_an_address_outside_the_file_system_and_another_one_each_time) {
  open_socket first;
  EXPECT_TRUE(first.socket.address().starts_with("@keelmond-run/"));
  EXPECT_NE(::fcntl(first.socket.fd(), F_GETFD) & FD_CLOEXEC, 0);
  const std::string before = first.socket.address();
  EXPECT_EQ(first.socket.open(), "");
  EXPECT_NE(first.socket.address(), before);
  first.socket.close();
  EXPECT_EQ(first.socket.fd(), -1);
  EXPECT_FALSE(send(before, "READY=1"));
}

TEST(notify_socket, takes_a_flood_in_parts_so_that_everything_else_has_its_turn) {
  open_socket here;
  in_child([&] {
    const pid_t sender = ::fork();
    if (sender == 0) {
      for (int i = 0; i < 40; ++i)
        send(here.socket.address(), "STATUS=" + std::to_string(i));
      send(here.socket.address(), "READY=1");
      ::_exit(0);
    }
    int turns = 0;
    for (bool ready = false; !ready; ++turns) {
      ASSERT_TRUE(await(here.socket.fd()));
      ready = here.socket.take(sender).is_ready;
    }
    EXPECT_GE(turns, 3);
    ::waitpid(sender, nullptr, 0);
  });
}

TEST(notify_socket, does_not_take_descriptors) {
  open_socket here;
  const auto before = count_descriptors();
  EXPECT_TRUE(send(here.socket.address(), "READY=1", STDERR_FILENO));
  EXPECT_TRUE(here.socket.take(::getpid()).is_ready);
  EXPECT_EQ(count_descriptors(), before);
}

namespace {

/// Sends, when it is told to, from a session of its own and by way of a child. Who has gone when
/// his message is read is nobody's descendant any more, so both stay.
[[noreturn]] void be_program(const std::string& address, int told) {
  ::setsid();
  if (!await(told) || ::fork() < 0) ::_exit(1);
  if (::getsid(0) != ::getpid()) send(address, "READY=1");
  for (;;)
    ::pause();
}

/// Gives its address away, and has to be sent something by a stranger before it goes on.
/// @return 0 when only the program counts.
int be_launcher(int stranger) {
  notify_socket socket;
  if (!socket.open().empty()) return 10;
  const channel to_program = make_pipe();
  const pid_t program = ::fork();
  if (program == 0) be_program(socket.address(), to_program.reader.get());
  if (::write(stranger, socket.address().c_str(), socket.address().size()) < 0) return 11;
  if (!await(socket.fd()) || socket.take(program).is_ready) return 12;
  if (::write(to_program.writer.get(), "x", 1) != 1) return 13;
  const bool is_ready = await(socket.fd()) && socket.take(program).is_ready;
  ::kill(-program, SIGKILL);
  ::waitpid(program, nullptr, 0);
  return is_ready ? 0 : 14;
}

}  // namespace

TEST(notify_socket, listens_to_the_program_and_its_descendants_and_to_nobody_else) {
  in_child([] {
    // This process is above the launcher, and so a stranger to it.
    const channel pipe = make_pipe();
    const pid_t launcher = ::fork();
    if (launcher == 0) ::_exit(be_launcher(pipe.writer.get()));
    ASSERT_TRUE(await(pipe.reader.get()));
    EXPECT_TRUE(send(read_all(pipe), "READY=1"));
    int status = -1;
    ASSERT_EQ(::waitpid(launcher, &status, 0), launcher);
    EXPECT_EQ(status, 0) << WEXITSTATUS(status);
  });
}
