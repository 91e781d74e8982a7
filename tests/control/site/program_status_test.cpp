#include "control/site/program_status.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "control/text/quantity.h"
#include "tests/support/scratch_dir.h"

using control::actual;
using control::program_status;

namespace {

/// Programs that all have been running for a second, and a log of how that came.
class recent_starts : public testing::Test {
 protected:
  recent_starts() {
    now_.uptime = 1000;
    now_.search.daemon = control::process{.pid = 1, .name = "keelmond"};
  }

  void add_running(const std::string& name, pid_t child) {
    now_.programs.push_back({.name = name, .exepath = "/bin/" + name, .state = "run"});
    control::running_program one;
    one.child.pid = child;
    one.child.started = static_cast<std::uint64_t>(999 * control::ticks_per_second());
    one.program = one.child;
    one.name = name;
    one.listed = true;
    now_.running.push_back(one);
  }

  void log(const std::string& line) {
    log_ += line + "\r\n" + control::format_local(std::time(nullptr)) + "\r\n";
    scratch_.write("keelmond.log", log_);
  }
  void log_launch(pid_t pid) { log("launched sub process PID: " + std::to_string(pid) + " "); }
  void log_end() { log("exited process PID: 4294967295  errno: 10"); }

  /// The names of those that restart often.
  std::vector<std::string> restarting() {
    std::vector<std::string> names;
    for (const program_status& one : control::list_programs(now_, {scratch_.path().string()})) {
      if (one.now == actual::restarting) names.push_back(one.name);
    }
    return names;
  }

  scratch_dir scratch_;
  control::snapshot now_;
  std::string log_;
};

using strings = std::vector<std::string>;

}  // namespace

TEST_F(recent_starts, show_the_program_that_ends_again_and_again) {
  add_running("steady", 100);
  add_running("failing", 204);
  log("keelmond Start PID: 1 ");
  log_launch(100);
  for (pid_t pid = 200; pid <= 204; ++pid) {
    if (pid > 200) log_end();
    log_launch(pid);
  }
  EXPECT_EQ(restarting(), strings{"failing"});
}

TEST_F(recent_starts, suspect_nobody_when_several_were_restarted_once) {
  log("keelmond Start PID: 1 ");
  for (pid_t pid = 100; pid < 110; ++pid)
    log_launch(pid);
  for (pid_t pid = 200; pid < 204; ++pid) {
    log_end();
    log_launch(pid);
    add_running("again" + std::to_string(pid), pid);
  }
  for (pid_t pid = 104; pid < 110; ++pid)
    add_running("once" + std::to_string(pid), pid);
  EXPECT_EQ(restarting(), strings());
}

TEST_F(recent_starts, show_a_program_that_has_reached_the_limit) {
  now_.programs.push_back({.name = "failing", .exepath = "/bin/sh", .state = "run"});
  const auto state = [&] {
    return control::list_programs(now_, {scratch_.path().string()}).at(0).now;
  };
  std::string ends = "keelmond Start PID: 1 \r\n2026-11-15 10:02:03\r\n";
  for (int i = 0; i < 200000; ++i)
    ends += "exited process PID: 4294967295  errno: 10\r\n2026-11-15 10:02:03\r\n";
  scratch_.write("keelmond.log", ends);
  EXPECT_EQ(state(), actual::starting);
  ends += "exited process PID: 4294967295  errno: 10\r\n2026-11-15 10:02:03\r\n";
  scratch_.write("keelmond.log", ends);
  EXPECT_EQ(state(), actual::given_up);
  std::filesystem::create_directory(scratch_.path() / "config");
  scratch_.write("config/server.ini", "");
  // One that was set to run just now is given the second that the daemon takes.
  now_.config.emplace();
  now_.config->status.st_ctime = std::time(nullptr);
  EXPECT_EQ(state(), actual::starting);
  now_.config->status.st_ctime -= 60;
  EXPECT_EQ(state(), actual::given_up);
  now_.search.daemon->started = static_cast<std::uint64_t>(999 * control::ticks_per_second());
  EXPECT_EQ(state(), actual::starting);
}

TEST_F(recent_starts, of_an_earlier_daemon_do_not_count) {
  add_running("steady", 100);
  for (pid_t pid = 90; pid < 99; ++pid) {
    log_launch(pid);
    log_end();
  }
  log("keelmond Start PID: 1 ");
  log_launch(100);
  EXPECT_EQ(restarting(), strings());
}
