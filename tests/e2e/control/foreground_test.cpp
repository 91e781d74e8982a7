#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>

#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace {

/// Runs `up --foreground` on one program and waits until that is alive.
struct foreground {
  explicit foreground(std::vector<std::string> more = {}) : arguments{"up", "--foreground"} {
    arguments.insert(arguments.end(), more.begin(), more.end());
    place.save({place.entry(name)});
  }
  pid_t wait_running(std::size_t starts) { return place.wait_running(name, starts); }
  /// Lists a second program, whose start is never over.
  void add_one_that_never_comes_up() const {
    const std::string never = "kmf_never";
    write_file(place.site() / never,
               "#!" KEELMOND_RUN_BINARY "\n[program]\ncommand = true\nbefore = sleep 1000\n");
    fs::permissions(place.site() / never, fs::perms::owner_all);
    place.save({place.entry(name), {.name = never, .exepath = place.site() / never}});
  }

  installation place;
  const std::string name = place.add_steady();
  std::vector<std::string> arguments;
};

/// A socket like the one on which systemd listens.
class notify_socket final {
 public:
  explicit notify_socket(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_DGRAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }
  notify_socket(const notify_socket&) = delete;
  notify_socket& operator=(const notify_socket&) = delete;
  ~notify_socket() {
    ::unsetenv("NOTIFY_SOCKET");
    ::close(fd_);
  }
  /// The next message, if there is one.
  [[nodiscard]] std::string read() const {
    char text[64];
    const ssize_t got = ::recv(fd_, text, sizeof text, MSG_DONTWAIT);
    return got > 0 ? std::string(text, static_cast<std::size_t>(got)) : "";
  }

 private:
  int fd_;
};

}  // namespace

TEST(control_foreground, stops_everything_in_order_when_it_is_told_to) {
  for (const int signal : {SIGTERM, SIGINT}) {
    foreground here;
    running_control up(here.place, here.arguments);
    const pid_t pid = here.wait_running(1);
    ASSERT_TRUE(wait_until([&] { return contains(up.output(), "1 of 1 programs"); }));
    ::kill(up.pid(), signal);
    EXPECT_EQ(up.wait().status, 0) << up.errors();
    EXPECT_FALSE(process_table::is_alive(pid));
    EXPECT_EQ(daemon_of(here.place), 0);
    EXPECT_FALSE(here.place.has("run.pid"));
    EXPECT_EQ(here.place.starts(here.name), 1U);
  }
}

TEST(control_foreground, says_when_it_is_ready_and_when_it_stops) {
  foreground here;
  const notify_socket socket((here.place.site() / "socket").string());
  running_control up(here.place, here.arguments);
  std::string state;
  EXPECT_TRUE(wait_until([&] { return !(state = socket.read()).empty(); }));
  EXPECT_EQ(state, "READY=1");
  ASSERT_EQ(here.place.running(here.name).size(), 1U);
  // What is for keelmondctl does not reach the programs, which would speak in its name.
  const std::string environment =
      read_file("/proc/" + std::to_string(here.place.running(here.name).at(0)) + "/environ");
  EXPECT_FALSE(contains(environment, "NOTIFY_SOCKET=")) << environment;
  EXPECT_TRUE(contains(environment, "PWD=")) << environment;
  ::kill(up.pid(), SIGTERM);
  EXPECT_TRUE(wait_until([&] { return !(state = socket.read()).empty(); }));
  EXPECT_EQ(state, "STOPPING=1");
  EXPECT_EQ(up.wait().status, 0);
}

TEST(control_foreground, brings_everything_back_once_when_the_daemon_is_killed) {
  foreground here;
  running_control up(here.place, here.arguments);
  here.wait_running(1);
  ASSERT_TRUE(wait_until([&] { return contains(up.output(), "1 of 1 programs"); }));
  const pid_t daemon = daemon_of(here.place);
  ASSERT_GT(daemon, 0);
  // One that dies right after its start is not started again at once.
  ASSERT_TRUE(keeps([] { return true; }, std::chrono::milliseconds(1100)));
  ASSERT_EQ(::kill(daemon, SIGKILL), 0);
  here.wait_running(2);
  EXPECT_TRUE(wait_until([&] { return count(up.output(), "1 of 1 programs") == 2; }));
  EXPECT_NE(daemon_of(here.place), daemon);
  EXPECT_TRUE(contains(up.errors(), "was killed by signal 9")) << up.errors();
  EXPECT_EQ(here.place.starts(here.name), 2U);
  ::kill(up.pid(), SIGTERM);
  EXPECT_EQ(up.wait().status, 0) << up.errors();
}

TEST(control_foreground, ends_with_the_daemon_when_it_is_not_to_restart_it) {
  foreground here({"--no-restart"});
  running_control up(here.place, here.arguments);
  const pid_t pid = here.wait_running(1);
  ASSERT_TRUE(wait_until([&] { return contains(up.output(), "1 of 1 programs"); }));
  const pid_t daemon = daemon_of(here.place);
  ASSERT_GT(daemon, 0);
  ::kill(daemon, SIGKILL);
  EXPECT_EQ(up.wait().status, 1);
  EXPECT_TRUE(wait_until([&] { return !process_table::is_alive(pid); }));
}

TEST(control_foreground, notices_that_the_daemon_is_killed_while_programs_start) {
  foreground here({"--no-restart", "--timeout", "200s"});
  here.add_one_that_never_comes_up();
  running_control up(here.place, here.arguments);
  const pid_t pid = here.wait_running(1);
  ASSERT_TRUE(wait_until([&] { return holds_process(up.pid()); })) << "it has found the daemon";
  ::kill(daemon_of(here.place), SIGKILL);
  EXPECT_EQ(up.wait().status, 1);
  EXPECT_TRUE(contains(up.errors(), "was killed by signal 9")) << up.errors();
  EXPECT_FALSE(process_table::is_alive(pid));
}

TEST(control_foreground, ends_when_somebody_else_shuts_the_daemon_down) {
  foreground here;
  running_control up(here.place, here.arguments);
  here.wait_running(1);
  ASSERT_TRUE(wait_until([&] { return contains(up.output(), "1 of 1 programs"); }));
  EXPECT_EQ(control(here.place, {"down"}).status, 0);
  EXPECT_EQ(up.wait().status, 0) << up.errors();
  EXPECT_TRUE(contains(up.output(), "keelmond has ended"));
}

TEST(control_foreground, fails_when_the_daemon_ends_unasked) {
  foreground here;
  running_control up(here.place, here.arguments);
  const pid_t pid = here.wait_running(1);
  ASSERT_TRUE(wait_until([&] { return contains(up.output(), "1 of 1 programs"); }));
  const pid_t daemon = daemon_of(here.place);
  ASSERT_GT(daemon, 0);
  fs::remove(here.place.site() / "config" / "server.ini");
  // It looks when it is told to, if it has not seen it by itself and ended.
  std::ignore = ::kill(daemon, SIGUSR1);
  EXPECT_EQ(up.wait().status, 1);
  EXPECT_TRUE(contains(up.errors(), "keelmond has ended without SIGUSR2")) << up.errors();
  EXPECT_FALSE(process_table::is_alive(pid));
}

TEST(control_foreground, ends_when_it_is_told_to_while_programs_start) {
  foreground here({"--timeout", "200s"});
  here.add_one_that_never_comes_up();
  running_control up(here.place, here.arguments);
  const pid_t pid = here.wait_running(1);
  ASSERT_TRUE(wait_until([&] { return holds_process(up.pid()); })) << "it has found the daemon";
  ::kill(up.pid(), SIGTERM);
  ASSERT_TRUE(wait_until([&] { return !process_table::is_alive(pid); }));
  EXPECT_EQ(up.wait().status, 0) << up.errors();
  EXPECT_FALSE(contains(up.output(), "are alive")) << up.output();
  EXPECT_EQ(daemon_of(here.place), 0);
}

TEST(control_foreground, reloads_on_sighup) {
  foreground here;
  running_control up(here.place, here.arguments);
  const pid_t pid = here.wait_running(1);
  ASSERT_TRUE(wait_until([&] { return contains(up.output(), "1 of 1 programs"); }));
  ::kill(up.pid(), SIGHUP);
  EXPECT_TRUE(wait_until([&] { return contains(up.output(), "keelmond has read"); }))
      << up.errors();
  EXPECT_TRUE(process_table::is_alive(pid));
}
