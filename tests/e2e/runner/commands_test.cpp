#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/e2e/runner/program_files.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

using runner::program_phase;
using runner::program_state;

namespace {

/// A program that notes the signal that is to end it, and ends.
std::string add_polite(runner_place& place, const std::string& more) {
  const std::string program = place.site().add_script(
      "trap 'echo TERM >> \"${0%/*}/got\"; exit' TERM\n" + place.site().note_start() +
      "while :; do " + place.site().stay() + "done\n");
  return place.add("[program]\ncommand = " + place.path_of(program) + "\n" + more);
}

/// Waits for it to be ready to be ended. Its script has no name of its own in a test.
program_state wait_polite(runner_place& place, const std::string& name) {
  const program_state state = place.wait_phase(name, program_phase::running);
  EXPECT_TRUE(wait_until([&] {
    const auto found = process_table::find(state.pid);
    return found && place.site().starts(found->name) > 0;
  }));
  return state;
}

}  // namespace

TEST(runner_commands, before_and_after_run_around_the_program) {
  runner_place place;
  const std::string name = place.add(
      "[program]\nshell = yes\nbefore = echo before >> steps\n"
      "command = echo program >> steps; exec sleep 1000\nafter = echo after $SIGNAL >> steps\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  ASSERT_EQ(place.wait_text("steps", "before\nprogram\n"), "before\nprogram\n");
  ::kill(state.pid, SIGKILL);
  const std::string all = "before\nprogram\nafter KILL\nbefore\nprogram\n";
  EXPECT_EQ(place.wait_text("steps", all), all);
  place.stop(name);
  EXPECT_EQ(place.read("steps"), all + "after TERM\n");
}

TEST(runner_commands, a_program_is_not_started_when_before_fails) {
  runner_place place;
  const std::string name =
      place.add("[program]\nshell = yes\nbefore = exit 3\ncommand = echo > started\n");
  place.start();
  EXPECT_EQ(place.wait_phase(name, program_phase::waiting).status, "before: exit 3");
  EXPECT_FALSE(place.site().has("programs/started"));
}

TEST(runner_commands,
     a_question_that_cannot_be_asked_is_told_once_and_is_no_failure_of_the_program) {
  runner_place place;
  const std::string name =
      place.add_steady("[ready]\ncommand = /nonexistent/ask\n[on]\nready = /nonexistent/hook\n");
  place.start();
  place.wait_phase(name, program_phase::starting);
  const std::string line = ": command: cannot execute /nonexistent/ask: No such file or directory";
  EXPECT_TRUE(wait_until([&] { return count(place.site().errors(), line) == 1; }));
  EXPECT_TRUE(keeps([&] { return count(place.site().errors(), line) == 1; }));
  EXPECT_EQ(place.state(name)->status, "");
}

TEST(runner_commands, stop_has_its_own_signal) {
  runner_place place;
  const std::string program = place.site().add_script(
      "for s in TERM QUIT; do trap \"echo $s > \\\"${0%/*}/got\\\"; exit\" $s; done\n" +
      place.site().note_start() + "while :; do " + place.site().stay() + "done\n");
  const std::string name = place.add("[program]\ncommand = " + place.path_of(program) +
                                     "\n[stop]\nsignal = SIGQUIT\ntimeout = 1h\n");
  place.start();
  place.wait_phase(name, program_phase::running);
  place.site().wait_running(program);
  place.stop(name);
  EXPECT_EQ(place.read("got"), "QUIT\n");
}

TEST(runner_commands, stop_can_be_a_command) {
  runner_place place;
  const std::string name =
      place.add_steady("[stop]\nshell = yes\ncommand = echo $NAME > asked; kill -KILL $PID\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  place.stop(name);
  EXPECT_EQ(place.read("asked"), name + "\n");
  EXPECT_FALSE(process_table::is_alive(state.pid));
}

TEST(runner_commands, what_a_stop_command_that_fails_leaves_is_asked_by_the_signal) {
  runner_place place;
  const std::string fails = add_polite(
      place, "[stop]\nshell = yes\ncommand = exit 3\ntimeout = 1h\n[log]\nfile = the.log\n");
  place.start();
  wait_polite(place, fails);
  place.stop(fails);
  EXPECT_EQ(place.read("got"), "TERM\n");
  EXPECT_TRUE(contains(place.read("the.log"), "keelmond-run: stop command: exit 3\n"))
      << place.read("the.log");
}

TEST(runner_commands, a_stop_command_that_is_not_there_is_told_and_made_up_for) {
  runner_place place;
  const std::string name = add_polite(place, "[stop]\ncommand = /nonexistent/stop\ntimeout = 1h\n");
  place.start();
  wait_polite(place, name);
  place.stop(name);
  EXPECT_EQ(place.read("got"), "TERM\n");
  EXPECT_TRUE(place.tells(place.path_of(name) +
                          ":5: command: cannot execute /nonexistent/stop: No such file"));
}

TEST(runner_commands, a_stop_command_that_hangs_is_killed_with_the_program) {
  runner_place place;
  const std::string hangs = place.site().add_steady();
  const std::string name =
      place.add_steady("[stop]\ncommand = " + place.path_of(hangs) + "\ntimeout = 300ms\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  place.stop(name);
  EXPECT_FALSE(process_table::is_alive(state.pid));
  EXPECT_TRUE(place.site().running(hangs).empty());
  EXPECT_TRUE(place.tells("not ended within 0.3 s: killed\n"));
}

TEST(runner_commands, after_may_fail) {
  runner_place place;
  const std::string name = place.add(
      shell_text("echo x >> starts; test ! -e again && touch again && exit 3; exec sleep 1000",
                 "after = exit 4\n[restart]\ndelay = 1ms\n"));
  place.start();
  place.wait_phase(name, program_phase::running);
  EXPECT_TRUE(place.tells(": after: exit 4\n"));
  EXPECT_EQ(place.wait_text("starts", "x\nx\n"), "x\nx\n");
}

TEST(runner_commands, after_that_hangs_is_killed_in_the_time_that_a_stop_has) {
  runner_place place;
  const std::string hangs = place.site().add_steady();
  const std::string name = place.add_steady("after = " + place.path_of(hangs) +
                                            "\n[stop]\ntimeout = 200ms\n[restart]\ndelay = 1ms\n");
  place.start();
  const program_state first = place.wait_phase(name, program_phase::running);
  ::kill(first.pid, SIGKILL);
  place.wait_again(name, first.pid);
  EXPECT_TRUE(place.tells(": after: signal KILL\n"));
  EXPECT_TRUE(place.site().running(hangs).empty());
}

TEST(runner_commands, before_that_hangs_ends_when_the_program_is_to_end) {
  runner_place place;
  const std::string hangs = place.site().add_steady();
  const std::string name =
      place.add("[program]\ncommand = sleep 1000\nbefore = " + place.path_of(hangs) + "\n");
  place.start();
  place.wait_phase(name, program_phase::before);
  place.site().wait_running(hangs);
  place.stop(name);
  EXPECT_TRUE(place.site().running(hangs).empty());
}

TEST(runner_commands, run_as_the_program_does) {
  runner_place place;
  fs::create_directory(place.path_of("below"));
  const std::string who = std::to_string(::getuid());
  const std::string name = place.add(
      shell_text("exec sleep 1000",
                 "directory = below\numask = 027\nbefore = { pwd; umask; echo $GREETING; id -u; "
                 "ulimit -n; } > out\n"
                 "user = " +
                     who + "\ngroup = " + std::to_string(::getgid()) +
                     "\n[environment]\nGREETING = good morning\n[limits]\nnofile = 77\n"));
  place.start();
  place.wait_phase(name, program_phase::running);
  EXPECT_EQ(place.read("below/out"),
            place.path_of("below") + "\n0027\ngood morning\n" + who + "\n77\n");
}

TEST(runner_commands, hooks_are_told_how_the_program_ended_and_how_long_it_lived) {
  runner_place place;
  const std::string name = place.add(
      shell_text("exit 3",
                 "[restart]\ngive_up = 1\n[on]\nshell = yes\n"
                 "failure = echo \"$NAME|$STATUS|$SIGNAL|$LIVED\" > new && mv new failed\n"));
  place.start();
  place.wait_phase(name, program_phase::given_up);
  ASSERT_TRUE(wait_until([&] { return place.site().has("programs/failed"); }));
  const std::string told = place.read("failed");
  const std::size_t lived = told.rfind('|') + 1;
  EXPECT_EQ(told.substr(0, lived), name + "|3||");
  char* end = nullptr;
  EXPECT_GE(std::strtod(told.c_str() + lived, &end), 0);
  EXPECT_STREQ(end, "\n") << told;
}
