#include "control/site/launcher_state.h"

#include <gtest/gtest.h>

using control::actual;
using control::process;
using control::program_status;
using runner::program_phase;
using runner::program_state;

namespace {

/// A program that a launcher runs, as it looks from outside.
program_status seen_from_outside() {
  program_status status;
  status.now = actual::running;
  status.program = process{.pid = 20, .started = 100, .name = "kmd_web"};
  status.tree = {*status.program, process{.pid = 30, .started = 110, .name = "server"}};
  return status;
}

program_state told(program_phase phase) {
  program_state state;
  state.phase = phase;
  state.launcher = 20;
  state.launcher_started = 100;
  return state;
}

}  // namespace

TEST(launcher_state, tells_why_a_program_waits) {
  program_state state = told(program_phase::waiting);
  state.next = 13'500;
  state.attempt = 5;
  state.status = "exit 1";
  EXPECT_EQ(control::describe_state(state, 10'000), "waiting 4 s, attempt 5: exit 1");
  EXPECT_EQ(control::describe_state(state, 20'000), "waiting 0 s, attempt 5: exit 1");
  state.attempt = 0;
  state.next = 135'000;
  EXPECT_EQ(control::describe_state(state, 10'000), "waiting 2m 05s: exit 1");
  state = told(program_phase::given_up);
  state.attempt = 3;
  state.status = "signal KILL";
  EXPECT_EQ(control::describe_state(state, 0), "given up after 3 attempts: signal KILL");
  EXPECT_EQ(control::describe_state(told(program_phase::running), 0), "");
}

TEST(launcher_state, tells_what_a_program_says_of_its_start) {
  program_state state = told(program_phase::starting);
  EXPECT_EQ(control::describe_state(state, 0), "not ready yet");
  state.says = "reading 3 of 5";
  EXPECT_EQ(control::describe_state(state, 0), "not ready yet: reading 3 of 5");
}

TEST(launcher_state, tells_that_a_launcher_clears_up_first) {
  const program_state state = told(program_phase::reading);
  EXPECT_EQ(control::describe_state(state, 0),
            "what an earlier keelmond-run left running is being ended");
  program_status status = seen_from_outside();
  EXPECT_TRUE(apply_state(state, 0, status));
  EXPECT_EQ(status.now, actual::starting);
}

TEST(launcher_state, shows_the_program_behind_the_launcher) {
  program_status status = seen_from_outside();
  program_state state = told(program_phase::running);
  state.pid = 30;
  state.started = 110;
  EXPECT_TRUE(apply_state(state, 0, status));
  EXPECT_EQ(status.now, actual::running);
  EXPECT_EQ(status.why, "");
  EXPECT_EQ(status.program->pid, 30);
  EXPECT_EQ(status.launcher->pid, 20);
}

TEST(launcher_state, shows_no_process_while_the_program_does_not_run) {
  program_status status = seen_from_outside();
  EXPECT_TRUE(apply_state(told(program_phase::waiting), 0, status));
  EXPECT_EQ(status.now, actual::waiting);
  EXPECT_FALSE(status.program);
  status = seen_from_outside();
  EXPECT_TRUE(apply_state(told(program_phase::ended), 0, status));
  EXPECT_EQ(status.now, actual::ended);
}

TEST(launcher_state, of_another_launcher_tells_nothing) {
  program_state state = told(program_phase::waiting);
  state.launcher_started = 99;
  program_status status = seen_from_outside();
  EXPECT_FALSE(apply_state(state, 0, status));
  EXPECT_EQ(status.now, actual::running);
  EXPECT_EQ(status.program->pid, 20);
  EXPECT_FALSE(status.launcher);
}

TEST(launcher_state, leaves_a_program_stopping_that_was_told_to_stop) {
  program_status status = seen_from_outside();
  status.now = actual::stopping;
  status.why = "it has been told to stop and still runs";
  EXPECT_TRUE(apply_state(told(program_phase::running), 0, status));
  EXPECT_EQ(status.now, actual::stopping);
  EXPECT_EQ(status.why, "it has been told to stop and still runs");
}
