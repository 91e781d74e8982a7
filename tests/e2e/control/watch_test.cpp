#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/children.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace {

/// A keelmondctl on a terminal of its own.
class on_terminal final {
 public:
  on_terminal(const installation& place, const char* command, const char* option,
              unsigned short columns = 120)
      : terminal_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)) {
    ::grantpt(terminal_);
    ::unlockpt(terminal_);
    const winsize size{20, columns, 0, 0};
    ::ioctl(terminal_, TIOCSWINSZ, &size);
    const std::string name = ::ptsname(terminal_);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::setsid();
      const int end = ::open(name.c_str(), O_RDWR);
      for (const int fd : {0, 1, 2})
        ::dup2(end, fd);
      ::setenv("TERM", "xterm", 1);
      ::execl(KEELMONDCTL_BINARY, "keelmondctl", "-C", place.site().c_str(), command, option,
              nullptr);
      ::_exit(122);
    }
    children::announce(pid_);
  }
  on_terminal(const on_terminal&) = delete;
  on_terminal& operator=(const on_terminal&) = delete;
  ~on_terminal() {
    if (pid_ > 0 && !children::status_of(pid_)) ::kill(pid_, SIGKILL);
    ::close(terminal_);
  }

  /// What it has shown so far.
  const std::string& shown() {
    char text[4096];
    for (ssize_t got; (got = ::read(terminal_, text, sizeof text)) > 0;)
      shown_.append(text, static_cast<std::size_t>(got));
    is_whole_ = errno == EIO;
    return shown_;
  }
  void press(char key) const { EXPECT_EQ(::write(terminal_, &key, 1), 1); }
  /// Waits for its end, and for the last of what it has shown.
  [[nodiscard]] int wait() {
    const int status = children::wait_for_end(pid_).value_or(-1);
    EXPECT_TRUE(wait_until([&] {
      shown();
      return is_whole_;
    }));
    return status;
  }

 private:
  int terminal_;
  pid_t pid_ = -1;
  std::string shown_;
  bool is_whole_ = false;
};

}  // namespace

TEST(control_watch, redraws_counts_starts_and_ends_on_q) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t first = place.start_with(name);
  on_terminal watch(place, "status", "--watch");
  ASSERT_TRUE(wait_until([&] { return contains(watch.shown(), std::to_string(first)); }))
      << watch.shown();
  ::kill(first, SIGKILL);
  const std::string second = std::to_string(place.wait_running(name, 2));
  EXPECT_TRUE(wait_until([&] { return contains(watch.shown(), second); })) << watch.shown();
  EXPECT_TRUE(contains(watch.shown(), "STARTS"));
  watch.press('c');
  watch.press('q');
  EXPECT_EQ(watch.wait(), 0);
  // No line is wrapped while it draws; and the screen is given back.
  EXPECT_TRUE(contains(watch.shown(), "\033[?7l\033[H"));
  EXPECT_TRUE(contains(watch.shown(), "\033[J\033[?7h"));
  EXPECT_TRUE(watch.shown().ends_with("\033[?1049l"));
}

TEST(control_watch, sorts_by_the_key_that_is_pressed) {
  installation place;
  place.save({{"kmc_zz", "/nonexistent", "stop"}, {"kmc_aa", "/nonexistent", "stop"}});
  on_terminal watch(place, "status", "--watch");
  const auto is_first = [&](const std::string& name, const std::string& other) {
    const std::string& shown = watch.shown();
    const std::size_t screen = shown.rfind("\033[H");
    const std::size_t at = shown.find(name, screen == std::string::npos ? 0 : screen);
    const std::size_t behind = shown.find(other, at == std::string::npos ? 0 : at);
    return screen != std::string::npos && at != std::string::npos && behind != std::string::npos;
  };
  EXPECT_TRUE(wait_until([&] { return is_first("kmc_zz", "kmc_aa"); })) << watch.shown();
  watch.press('n');
  EXPECT_TRUE(wait_until([&] { return is_first("kmc_aa", "kmc_zz"); })) << watch.shown();
  watch.press('f');
  EXPECT_TRUE(wait_until([&] { return is_first("kmc_zz", "kmc_aa"); })) << watch.shown();
  watch.press('q');
  EXPECT_EQ(watch.wait(), 0);
}

TEST(control_watch, needs_a_terminal) {
  installation place;
  EXPECT_EQ(control(place, {"status", "--watch"}).status, 2);
  EXPECT_EQ(control(place, {"status", "--watch", "--json"}).status, 2);
}

TEST(control_colours, are_for_terminals_without_no_color) {
  installation place;
  place.save({{"kmc_none", "/nonexistent/kmc_none", "run"}});
  EXPECT_FALSE(contains(control(place, {"status"}).output, "\033["));
  on_terminal coloured(place, "status", nullptr);
  EXPECT_EQ(coloured.wait(), 3);
  EXPECT_TRUE(contains(coloured.shown(), "\033[31m")) << coloured.shown();
  ::setenv("NO_COLOR", "1", 1);
  on_terminal plain(place, "status", nullptr);
  ::unsetenv("NO_COLOR");
  EXPECT_EQ(plain.wait(), 3);
  EXPECT_FALSE(contains(plain.shown(), "\033["));
}

TEST(control_tables, fit_the_terminal) {
  installation place;
  place.save({{"kmc_none", "/nonexistent/with/a/long/path/that/no/narrow/terminal/shows", "run"}});
  const auto widest = [&](unsigned short columns) {
    on_terminal narrow(place, "status", nullptr, columns);
    EXPECT_EQ(narrow.wait(), 3);
    std::istringstream lines(narrow.shown());
    std::size_t most = 0;
    for (std::string line; std::getline(lines, line);) {
      if (!line.starts_with("kmc_none")) continue;
      while (line.find('\033') != std::string::npos) {
        const std::size_t at = line.find('\033');
        line.erase(at, line.find('m', at) + 1 - at);
      }
      most = line.size() - (line.ends_with('\r') ? 1 : 0);
    }
    return most;
  };
  EXPECT_GT(widest(200), 100U);
  EXPECT_EQ(widest(90), 90U);
  for (const unsigned short columns : std::vector<unsigned short>{80, 60, 40, 30})
    EXPECT_LE(widest(columns), columns);
}
