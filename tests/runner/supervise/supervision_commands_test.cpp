#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <tuple>
#include <vector>

#include "runner/file/process_stat.h"
#include "runner/supervise/supervision.h"
#include "tests/runner/supervise/launcher_place.h"
#include "tests/support/fault.h"
#include "tests/support/text.h"
#include "tests/support/wait_until.h"

using runner::program_phase;
using runner::read_process_stat;

namespace {

/// A line of a shell script that leaves a process in a session of its own. The command goes on when
/// the number of that one stands in the file, too.
std::string leave(const std::string& file) {
  const std::string count = "$(cat " + file + " 2>/dev/null | wc -l)";
  return "n=" + count + "; (setsid sh -c 'echo $$ >> " + file +
         "; exec sleep 1000' &); until test " + count + " -gt $n; do sleep 0.01; done";
}

/// The numbers in a file, one in each line.
std::vector<pid_t> numbers_in(const launcher_place& place, const std::string& file) {
  std::vector<pid_t> numbers;
  for (const std::string& line : lines_of(place.directory().read(file)))
    numbers.push_back(std::stoi(line));
  return numbers;
}

bool is_alive(pid_t pid) {
  return read_process_stat(pid).has_value();
}

}  // namespace

TEST(supervision_commands, what_comes_before_leaves_nothing_behind) {
  launcher_place place;
  place.write("shell = yes\nbefore = " + leave("left") + "\ncommand = exec sleep 1000\n");
  place.start();
  std::ignore = place.wait_phase(program_phase::running);
  const auto left = numbers_in(place, "left");
  ASSERT_EQ(left.size(), 1U);
  EXPECT_FALSE(is_alive(left.front()));
}

TEST(supervision_commands, what_comes_after_leaves_nothing_behind) {
  launcher_place place;
  place.write("shell = yes\nafter = " + leave("left") +
              "\ncommand = true\n[restart]\ndelay = 1h\nlongest = 1h\n");
  place.start();
  std::ignore = place.wait_phase(program_phase::waiting);
  const auto left = numbers_in(place, "left");
  ASSERT_EQ(left.size(), 1U);
  EXPECT_FALSE(is_alive(left.front()));
}

TEST(supervision_commands, a_question_leaves_nothing_behind_and_the_program_keeps_what_is_its_own) {
  launcher_place place;
  place.write("shell = yes\ncommand = " + leave("own") +
              "; exec sleep 1000\n[health]\nshell = yes\nevery = 10ms\ncommand = " + leave("left") +
              "\n");
  place.start();
  const auto state = place.wait_phase(program_phase::running);
  EXPECT_TRUE(wait_until([&] {
    const auto left = numbers_in(place, "left");
    return left.size() >= 3 && !std::any_of(left.begin(), left.begin() + 2, is_alive);
  }));
  ASSERT_TRUE(wait_until([&] { return !numbers_in(place, "own").empty(); }));
  const auto own = numbers_in(place, "own");
  EXPECT_TRUE(is_alive(own.front()));
  EXPECT_TRUE(is_alive(state.pid));
}

TEST(supervision_commands, what_a_hook_leaves_outlives_the_next_run_and_not_the_launcher) {
  launcher_place place;
  place.write(
      "command = false\n[restart]\ndelay = 1ms\nlongest = 1ms\n[on]\nshell = yes\nfailure = "
      "test -e mail && exit; " +
      leave("mail") + "\n");
  place.start();
  ASSERT_TRUE(wait_until([&] { return !numbers_in(place, "mail").empty(); }));
  const std::uint64_t before = place.state()->attempt;
  EXPECT_TRUE(wait_until([&] { return place.state()->attempt >= before + 3; }));
  const pid_t mail = numbers_in(place, "mail").front();
  EXPECT_TRUE(is_alive(mail));
  place.send(SIGUSR2);
  EXPECT_TRUE(place.wait_end());
  EXPECT_FALSE(is_alive(mail));
}

TEST(supervision_commands, a_hook_that_cannot_be_executed_is_told_when_the_file_has_it_no_more) {
  launcher_place place;
  place.write("command = sleep 1000\n[restart]\ndelay = 1ms\n[on]\nfailure = /nonexistent/hook\n");
  // The second process that it starts is the hook, which takes until there is such a file.
  place.start([go = place.directory().file("go")] {
    faults.fork = [go, started = 0]() mutable {
      const bool is_hook = ++started == 2;
      const pid_t pid = real::fork();
      if (pid == 0 && is_hook) wait_until([&] { return ::access(go.c_str(), F_OK) == 0; });
      return pid;
    };
  });
  const auto first = place.wait_phase(program_phase::running);
  place.write("command = sleep 1000\n");
  ::kill(first.pid, SIGKILL);
  ASSERT_TRUE(wait_until([&] {
    const auto state = place.state();
    return state && state->phase == program_phase::running && state->pid != first.pid;
  }));
  place.directory().write("go", "");
  EXPECT_TRUE(wait_until([&] {
    return place.errors().find("failure: cannot execute /nonexistent/hook: ") != std::string::npos;
  })) << place.errors();
}

TEST(supervision_commands, a_request_to_end_ends_what_comes_before_at_once) {
  for (const int signal : {SIGUSR2, SIGTERM}) {
    launcher_place place;
    place.write("before = sleep 1000\ncommand = touch started\n");
    place.start();
    std::ignore = place.wait_phase(program_phase::before);
    place.send(signal);
    EXPECT_TRUE(place.wait_end());
    EXPECT_FALSE(place.directory().has("started"));
    EXPECT_FALSE(place.state());
  }
}
