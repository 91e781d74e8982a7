#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e/support/children.h"
#include "tests/e2e/support/installation.h"
#include "tests/e2e/support/slow_log.h"
#include "tests/stress/support/stress.h"
#include "tests/support/wait_until.h"

// What hangs beside the supervisor, and what it was started with.

namespace {

namespace fs = std::filesystem;
using clock = std::chrono::steady_clock;

/// An installation whose stop commands find a `pgrep` that never ends.
class hanging_stop_commands final {
 public:
  explicit hanging_stop_commands(int programs) {
    fs::create_directory(place.site() / "bin");
    place.write_script(place.site() / "bin" / "pgrep", "echo > \"$0.called\"\nsleep 1000\n");
    for (int i = 0; i < programs; ++i)
      listed.push_back(place.entry(place.add_steady()));
    place.save(listed);
    const std::string path = (place.site() / "bin").string() + ":" + std::getenv("PATH");
    place.start({.before_exec = [=] { ::setenv("PATH", path.c_str(), 1); }});
    for (const listed_program& program : listed)
      place.wait_running(program.name);
  }
  [[nodiscard]] bool hangs() const {
    return wait_until([&] { return place.has("bin/pgrep.called"); });
  }

  installation place;
  std::vector<listed_program> listed;
};

/// Waits until no process below the installation is left.
bool wait_empty(const installation& place) {
  return wait_until([&] { return place.processes().empty(); });
}

/// Whether the program runs under a supervisor that is started like this, and ends with it.
void expect_supervision(const start_options& options) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  place.start(options);
  stress::kill_running(place, name);
  place.wait_running(name, 2);
  EXPECT_EQ(place.console().find("fork() error"), std::string::npos);
  stress::expect_clean_end(place);
}

start_options limited(int resource, rlim_t most) {
  return stress::without_leak_check({.before_exec = [=] {
    struct rlimit limit {};
    ::getrlimit(static_cast<__rlimit_resource>(resource), &limit);
    limit.rlim_cur = std::min(most, limit.rlim_max);
    ::setrlimit(static_cast<__rlimit_resource>(resource), &limit);
  }});
}

}  // namespace

TEST(hangs, a_stop_command_that_does_not_end_is_killed_and_its_program_ends_all_the_same) {
  const hanging_stop_commands world(1);
  const installation& place = world.place;
  place.save({place.entry(world.listed[0].name, "stop")});
  ASSERT_TRUE(world.hangs());
  ASSERT_TRUE(
      wait_until([&] { return place.console().find("kill -USR2 result") != std::string::npos; },
                 std::chrono::seconds(40)));
  EXPECT_NE(place.console().find("keelmond: the stop command of " + world.listed[0].name +
                                 " did not end and was killed.\r\n"),
            std::string::npos);
  EXPECT_TRUE(wait_until([&] { return place.running(world.listed[0].name).empty(); }));
  // Nothing is left of the command.
  EXPECT_TRUE(wait_until([&] { return place.processes().size() == 1; }));
  stress::expect_clean_end(place);
}

TEST(hangs, a_second_request_to_shut_down_waits_for_no_stop_command) {
  for (const int second : {SIGUSR2, SIGINT}) {
    const hanging_stop_commands world(5);
    const installation& place = world.place;
    place.signal(SIGUSR2);
    ASSERT_TRUE(world.hangs());
    const auto asked = clock::now();
    place.signal(second);
    EXPECT_EQ(place.wait_end(), 0);
    EXPECT_LT(clock::now() - asked, std::chrono::seconds(9)) << "not even for one";
    EXPECT_FALSE(place.has("run.pid"));
    EXPECT_TRUE(wait_empty(place));
    EXPECT_EQ(stress::stopped_names(place).size(), 5U);
  }
}

TEST(hangs, a_request_to_shut_down_does_not_wait_for_the_stop_commands_of_a_reload) {
  const hanging_stop_commands world(5);
  const installation& place = world.place;
  std::vector<listed_program> stopped = world.listed;
  for (listed_program& one : stopped)
    one.state = "stop";
  place.save(stopped);
  ASSERT_TRUE(world.hangs());
  const auto asked = clock::now();
  place.signal(SIGUSR2);
  // One command of the end itself may hang for its time, and then nothing is left to be stopped.
  ASSERT_TRUE(wait_until([&] { return stress::stopped_names(place).size() >= 5; }));
  EXPECT_LT(clock::now() - asked, std::chrono::seconds(9));
  // Another than the first, which may still be pending.
  place.signal(SIGINT);
  EXPECT_EQ(place.wait_end(), 0) << place.console();
  EXPECT_TRUE(wait_empty(place));
}

TEST(hangs, a_pipe_in_place_of_a_liveness_file_holds_nobody_up) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  ASSERT_EQ(::mkfifo((place.site() / "notify" / (name + ".dat")).c_str(), 0600), 0);
  place.start();
  stress::kill_running(place, name);
  place.wait_running(name, 2);
  EXPECT_TRUE(stress::reload(place));
  stress::expect_clean_end(place);
}

TEST(hangs, a_log_that_takes_nothing_holds_no_program_up) {
  installation place;
  const slow_log log(place);
  std::vector<std::string> programs;
  std::vector<listed_program> listed;
  for (int i = 0; i < 5; ++i) {
    programs.push_back(place.add_steady());
    listed.push_back(place.entry(programs.back()));
  }
  place.save(listed);
  place.start();
  for (const std::string& name : programs)
    place.wait_running(name);
  log.fill();
  for (std::size_t starts = 1; starts <= 3; ++starts) {
    for (const std::string& name : programs)
      stress::kill_running(place, name, starts);
    for (const std::string& name : programs)
      place.wait_running(name, starts + 1);
  }
  EXPECT_NE(place.console().find("keelmond: the log hangs, not written: "), std::string::npos);
  EXPECT_TRUE(stress::reload(place)) << "nor the watcher";
  // What it takes again is written.
  const std::string text = log.drain([] { return true; });
  EXPECT_TRUE(wait_until([&] { return log.drain([] { return true; }).find("PID") != text.npos; }));
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_TRUE(wait_empty(place));
}

TEST(limits, of_the_stack_do_not_matter) {
  expect_supervision(limited(RLIMIT_STACK, rlim_t{64} * 1024));
#ifndef __SANITIZE_THREAD__
  // With these the kernel puts mappings where ThreadSanitizer does not always take them.
  for (const rlim_t most : {rlim_t{1} << 40, RLIM_INFINITY})
    expect_supervision(limited(RLIMIT_STACK, most));
#endif
}

#ifndef KEELMOND_SANITIZED
// The sanitizers themselves want terabytes.
TEST(limits, of_the_address_space_may_be_small) {
  expect_supervision(limited(RLIMIT_AS, rlim_t{48} * 1024 * 1024));
}

TEST(limits, of_the_stack_may_be_more_than_there_is) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  const start_options stack = limited(RLIMIT_STACK, rlim_t{1} << 30);
  const start_options space = limited(RLIMIT_AS, rlim_t{48} * 1024 * 1024);
  place.start({.before_exec = [=] {
    stack.before_exec();
    space.before_exec();
  }});
  place.wait_running(name);
  EXPECT_EQ(stress::status_number(place.daemon(), "Threads"), 5)
      << "main, watcher, monitor, the one that forks and the one that records";
  stress::expect_clean_end(place);
}
#endif

TEST(limits, a_log_that_has_reached_the_limit_for_files_ends_nothing) {
  installation place;
  const std::string name = place.add_steady();
  place.start_with(name);
  ASSERT_TRUE(wait_until([&] { return contains(place.log(), "launched sub process"); }));
  const std::string log = place.log();
  // The programs, which inherit it, write less.
  stress::limit(place.daemon(), RLIMIT_FSIZE, log.size());
  for (std::size_t starts = 1; starts <= 3; ++starts) {
    stress::kill_running(place, name, starts);
    place.wait_running(name, starts + 1);
  }
  EXPECT_EQ(place.log(), log);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_TRUE(wait_empty(place));
}

TEST(limits, a_program_dies_of_a_file_that_is_too_large_as_it_would_anywhere) {
  installation place;
  const std::string name = place.add_script(
      place.note_start("$(grep 'SigBlk\\|SigIgn' /proc/self/status | tr '\\n' ' ')") +
      place.stay());
  place.start_with(name);
  const std::string note = place.notes(name)[0];
  const auto signals = [&](const std::string& field) {
    return std::stoull(note.substr(note.find(field) + field.size() + 1), nullptr, 16);
  };
  for (const char* field : {"SigBlk", "SigIgn"})
    EXPECT_EQ(signals(field) >> (SIGXFSZ - 1) & 1, 0U) << field;
  stress::expect_clean_end(place);
}
