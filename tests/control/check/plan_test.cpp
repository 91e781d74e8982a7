#include "control/check/plan.h"

#include <gtest/gtest.h>

using control::listed_program;
using control::planned_step;
using control::running_program;
using control::snapshot;
using action = control::planned_step::action;

namespace {

listed_program entry(const std::string& name, const std::string& state,
                     const std::string& exepath = "/bin/sh") {
  listed_program program;
  program.name = name;
  program.state = state;
  program.exepath = exepath;
  return program;
}

running_program running(const std::string& name, pid_t pid) {
  running_program one;
  one.name = name;
  one.child.pid = pid - 1;
  one.program = control::process{};
  one.program->pid = pid;
  return one;
}

planned_step step(const listed_program& program, const snapshot& now) {
  return control::make_plan({program}, now).at(0);
}

}  // namespace

TEST(plan, tells_what_becomes_of_a_program_that_does_not_run) {
  const snapshot now;
  EXPECT_EQ(step(entry("ab", "run"), now).what, action::start);
  EXPECT_EQ(step(entry("ab", "stop"), now).what, action::none);
  EXPECT_EQ(step(entry("ab", "stop"), now).text, "stays stopped");
  EXPECT_EQ(step(entry("ab", ""), now).what, action::none);
  EXPECT_EQ(step(entry("ab", "maybe"), now).text,
            "nothing: the state \"maybe\" is neither run nor stop");
  EXPECT_EQ(step(entry("ab", "run", "/nonexistent"), now).what, action::skip);
}

TEST(plan, tells_what_becomes_of_a_program_that_runs) {
  snapshot now;
  now.running = {running("ab", 20)};
  EXPECT_EQ(step(entry("ab", "run"), now).text, "goes on running (PID 20)");
  EXPECT_EQ(step(entry("ab", "stop"), now).what, action::stop);
  EXPECT_NE(step(entry("ab", "stop"), now).text.find("PID 20"), std::string::npos);
  EXPECT_EQ(step(entry("ab", "maybe"), now).what, action::keep);
  EXPECT_NE(step(entry("ab", "run", "/nonexistent"), now).text.find("goes on running (PID 20)"),
            std::string::npos);
}

TEST(plan, says_that_a_changed_path_has_no_effect_yet) {
  snapshot now;
  now.running = {running("ab", 20)};
  now.programs = {entry("ab", "run", "/bin/true")};
  EXPECT_NE(step(entry("ab", "run"), now).text.find("when keelmond is restarted"),
            std::string::npos);
}

TEST(plan, lists_what_runs_without_an_entry) {
  snapshot now;
  now.running = {running("gone", 20)};
  const auto steps = control::make_plan({entry("ab", "stop")}, now);
  ASSERT_EQ(steps.size(), 2U);
  EXPECT_EQ(steps[1].name, "gone");
  EXPECT_EQ(steps[1].what, action::keep);
}
