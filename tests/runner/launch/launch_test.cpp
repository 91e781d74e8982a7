#include "runner/launch/launch.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

using runner::file_finding;
using runner::launch_failure;
using runner::launch_order;
using runner::launch_step;
using runner::program_file;

namespace {

struct failure_case {
  const char* text;  ///< Behind the header and the command, from line 3 on.
  launch_failure failure;
  const char* key;
  std::size_t line;
};

file_finding describe(const std::string& text, const launch_failure& failure) {
  const auto read =
      runner::read_program_text("[program]\ncommand = true\n" + text, "/srv/programs/kmd_x");
  EXPECT_TRUE(read.findings.empty()) << text;
  const std::vector<std::string> environment;
  return runner::describe(failure, {read.settings.program.command, read.settings, environment});
}

}  // namespace

TEST(launch, a_failure_names_the_key_that_is_at_fault) {
  const failure_case cases[] = {
      {"nice = 5\n", {launch_step::nice, EPERM, 0}, "nice", 3},
      {"oom_score = 5\n", {launch_step::oom_score, EPERM, 0}, "oom_score", 3},
      {"directory = /x\n", {launch_step::directory, ENOENT, 0}, "directory", 3},
      // It is where the file is.
      {"", {launch_step::directory, EACCES, 0}, "command", 2},
      {"user = 1\ngroup = 2\n", {launch_step::group, EPERM, 0}, "group", 4},
      {"user = 0\n", {launch_step::group, EPERM, 0}, "user", 3},
      {"user = 1\ngroup = 2\n", {launch_step::user, EPERM, 0}, "user", 3},
      {"group = 2\ngroups = 3\n", {launch_step::groups, EPERM, 0}, "groups", 4},
      {"group = 2\nuser = 1\n", {launch_step::groups, EPERM, 0}, "group", 3},
      {"no_new_privileges = yes\n", {launch_step::privileges, EPERM, 0}, "no_new_privileges", 3},
      {"no_new_privileges = yes\n", {launch_step::death_signal, EINVAL, 0}, "command", 2},
      {"no_new_privileges = yes\n", {launch_step::descriptors, EMFILE, 0}, "command", 2},
      {"[limits]\nnofile = 5\ncore = 0\n", {launch_step::limit, EPERM, 1}, "core", 5},
      {"[limits]\ncore = 0\ntasks = 5\n", {launch_step::control_group, EACCES, 0}, "tasks", 5},
      {"[limits]\ncpu = 1\n", {launch_step::control_group, EACCES, 0}, "cpu", 4},
      {"", {launch_step::command, ENOENT, 0}, "command", 2},
      {"", {launch_step::process, EAGAIN, 0}, "command", 2},
  };
  for (const failure_case& one : cases) {
    const file_finding finding = describe(one.text, one.failure);
    EXPECT_EQ(finding.key, one.key) << one.text;
    EXPECT_EQ(finding.line, one.line) << one.text;
  }
}

TEST(launch, a_failure_of_another_command_names_that) {
  const auto read = runner::read_program_text(
      "[program]\ncommand = a\n[health]\ncommand = missing\n", "/srv/programs/kmd_x");
  const std::vector<std::string> environment;
  launch_order order{read.settings.health.probe.command, read.settings, environment};
  order.section = "health";
  const file_finding finding = runner::describe({launch_step::command, ENOENT, 0}, order);
  EXPECT_EQ(runner::in_one_line("f", finding),
            "f:4: command: cannot execute missing: No such file or directory");
}
