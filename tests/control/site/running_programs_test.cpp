#include "control/site/running_programs.h"

#include <gtest/gtest.h>

#include "tests/control/proc/recorded_tree.h"

using control::listed_program;
using control::proc_dir;
using control::process_table;
using control::program_finder;
using control::running_program;

namespace {

listed_program entry(const std::string& name, const std::string& exepath) {
  listed_program program;
  program.name = name;
  program.exepath = exepath;
  program.state = "run";
  return program;
}

/// A recorded tree in which process 10 is the daemon.
struct scene {
  explicit scene(std::vector<recorded_process> processes)
      : tree(with_daemon(std::move(processes))), proc(tree.root()), table(proc) {}

  static std::vector<recorded_process> with_daemon(std::vector<recorded_process> processes) {
    processes.push_back({10, 1, "keelmond", {"keelmond"}, 4});
    return processes;
  }
  [[nodiscard]] std::vector<running_program> below(
      const std::vector<listed_program>& programs) const {
    return program_finder(proc, table, programs).below(*table.find(10));
  }
  [[nodiscard]] std::vector<running_program> left_over(const std::vector<listed_program>& programs,
                                                       pid_t launched = 0) const {
    return program_finder(proc, table, programs)
        .left_over("/srv", [launched](const control::process& one) { return one.pid == launched; });
  }

  recorded_tree tree;
  proc_dir proc;
  process_table table;
};

const std::vector<std::string> kCopy = {"keelmond"};

}  // namespace

TEST(running_programs, finds_the_program_that_the_shell_has_become) {
  const scene place({{20, 10, "keelmond", kCopy},
                     {21, 20, "kmd_web", {"/srv/kmd_web"}},
                     {22, 21, "worker", {"worker"}}});
  const auto found = place.below({entry("kmd_web", "/srv/kmd_web")});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].name, "kmd_web");
  EXPECT_TRUE(found[0].listed);
  EXPECT_EQ(found[0].child.pid, 20);
  ASSERT_TRUE(found[0].program);
  EXPECT_EQ(found[0].program->pid, 21);
  ASSERT_EQ(found[0].tree.size(), 2U);
  EXPECT_EQ(found[0].tree[1].pid, 22);
}

TEST(running_programs, finds_the_program_below_a_shell_that_waits) {
  const scene place({{20, 10, "keelmond", kCopy},
                     {21, 20, "sh", {"sh", "-c", "--", "/srv/kmd_web"}},
                     {22, 21, "kmd_web", {"/srv/kmd_web"}}});
  const auto found = place.below({entry("kmd_web", "/srv/kmd_web")});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].name, "kmd_web");
  ASSERT_TRUE(found[0].program);
  EXPECT_EQ(found[0].program->pid, 22);
}

TEST(running_programs, knows_a_script_by_the_path_behind_its_interpreter) {
  const scene place(
      {{20, 10, "keelmond", kCopy}, {21, 20, "kmd_web.sh", {"/bin/sh", "-e", "/srv/kmd_web.sh"}}});
  const auto found = place.below({entry("other", "/srv/kmd_web.sh")});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].name, "other");
}

TEST(running_programs, names_a_program_that_changed_its_command_line_after_the_process) {
  const scene place({{20, 10, "keelmond", kCopy}, {21, 20, "kmd_web", {"web: master process"}}});
  const auto found = place.below({entry("kmd_web", "/srv/elsewhere")});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].name, "kmd_web");
  EXPECT_TRUE(found[0].listed);
}

TEST(running_programs, knows_a_program_that_is_still_being_started) {
  const scene place({{20, 10, "keelmond", kCopy},
                     {30, 10, "keelmond", kCopy, 1, 1001},
                     {31, 30, "keelmond", kCopy},
                     {40, 10, "keelmond", kCopy, 1, 1002},
                     {41, 40, "sh", {"sh", "-c", "/srv/kmd_web"}},
                     {50, 10, "keelmond", kCopy, 1, 1003},
                     {51, 50, "sh", {"sh", "-c", "/srv/kmd_web"}},
                     {52, 51, "sh", {"sh", "-c", "/srv/kmd_web"}}});
  const auto found = place.below({entry("kmd_web", "/srv/kmd_web")});
  ASSERT_EQ(found.size(), 4U);
  EXPECT_FALSE(found[3].program);
  EXPECT_FALSE(found[0].program);
  EXPECT_FALSE(found[1].program);
  EXPECT_FALSE(found[2].program);
  EXPECT_EQ(found[1].name, "");
  EXPECT_EQ(found[2].name, "kmd_web");
}

TEST(running_programs, knows_a_program_whose_shell_is_just_being_executed) {
  // The name is the shell's already, and the words are not there yet.
  const scene place({{20, 10, "keelmond", kCopy},
                     {21, 20, "sh", {}},
                     {30, 10, "keelmond", kCopy, 1, 1001},
                     {31, 30, "kmd_mute", {}}});
  const auto found = place.below({entry("kmd_web", "/srv/kmd_web"), entry("kmd_mute", "/bin/sh")});
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].name, "") << "it is no other program";
  EXPECT_FALSE(found[0].program);
  EXPECT_EQ(found[1].name, "kmd_mute") << "a program may take its words away";
}

TEST(running_programs, leaves_stop_commands_out) {
  const scene place(
      {{20, 10, "keelmond", kCopy}, {21, 20, "sh", {"sh", "-c", "kill -USR2 `pgrep kmd_web`"}}});
  EXPECT_TRUE(place.below({entry("kmd_web", "/srv/kmd_web")}).empty());
}

TEST(running_programs, tells_of_a_program_that_no_entry_names) {
  const scene place({{20, 10, "keelmond", kCopy}, {21, 20, "kmd_old", {"/srv/kmd_old"}}});
  const auto found = place.below({entry("kmd_web", "/srv/kmd_web")});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].name, "kmd_old");
  EXPECT_FALSE(found[0].listed);
}

TEST(running_programs, gives_entries_with_one_file_a_process_each) {
  const scene place({{20, 10, "keelmond", kCopy},
                     {21, 20, "prog", {"/srv/prog"}},
                     {30, 10, "keelmond", kCopy, 1, 1001},
                     {31, 30, "prog", {"/srv/prog"}}});
  const auto found = place.below({entry("first", "/srv/prog"), entry("second", "/srv/prog")});
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].name, "first");
  EXPECT_EQ(found[1].name, "second");
}

TEST(running_programs, finds_what_a_daemon_left_over_by_path_by_log_and_by_directory) {
  const scene place({{20, 1, "keelmond", kCopy},
                     {21, 20, "kmd_web", {"/srv/kmd_web"}},
                     {30, 1, "keelmond", kCopy, 1, 1001},
                     {31, 30, "logged", {"/opt/logged"}},
                     {40, 1, "keelmond", kCopy, 1, 1002},
                     {41, 40, "strange", {"/opt/strange"}},
                     {50, 1, "keelmond", kCopy, 1, 1003},
                     {51, 50, "started", {"/opt/started"}}});
  place.tree.write(50, "environ", std::string("PWD=/srv\0", 9));
  const std::vector<listed_program> programs = {entry("kmd_web", "/srv/kmd_web"),
                                                entry("strange", "/opt/strange"),
                                                entry("started", "/opt/started")};
  std::vector<pid_t> children;
  for (const running_program& one : place.left_over(programs, 30))
    children.push_back(one.child.pid);
  EXPECT_EQ(children, (std::vector<pid_t>{20, 30, 50}));
}

TEST(running_programs, finds_what_a_daemon_left_over_that_is_not_quite_gone) {
  const scene place({{15, 1, "keelmond", kCopy, 2, 1000, 50, 'Z'},
                     {20, 15, "keelmond", kCopy},
                     {21, 20, "kmd_web", {"/srv/kmd_web"}}});
  EXPECT_EQ(place.left_over({entry("kmd_web", "/srv/kmd_web")}).size(), 1U);
}

TEST(running_programs, leaves_a_program_of_the_same_name_to_the_directory_that_it_is_of) {
  const scene place({{20, 1, "keelmond", kCopy}, {21, 20, "kmd_web", {"/other/kmd_web"}}});
  place.tree.write(20, "environ", std::string("PWD=/other\0", 11));
  EXPECT_TRUE(place.left_over({entry("kmd_web", "/srv/kmd_web")}).empty());
  place.tree.write(20, "environ", std::string("PWD=/srv\0", 9));
  EXPECT_EQ(place.left_over({entry("kmd_web", "/srv/kmd_web")}).size(), 1U);
}

TEST(running_programs, finds_a_program_that_lost_the_child_above_it_but_none_that_somebody_runs) {
  const scene place({{20, 1, "kmd_web", {"/srv/kmd_web"}},
                     {21, 20, "worker", {"worker"}},
                     {30, 1, "sh", {"sh", "-c", "/srv/kmd_db"}, 1, 1001},
                     {31, 30, "kmd_db", {"/srv/kmd_db"}},
                     {60, 1, "bash", {"bash"}, 1, 900, 60},
                     {61, 60, "kmd_web", {"/srv/kmd_web"}, 1, 950, 60},
                     {70, 10, "keelmond", kCopy},
                     {71, 70, "kmd_web", {"/srv/kmd_web"}}});
  const auto found =
      place.left_over({entry("kmd_web", "/srv/kmd_web"), entry("kmd_db", "/srv/kmd_db")});
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].name, "kmd_web");
  EXPECT_EQ(found[0].program->pid, 20);
  EXPECT_EQ(found[0].tree.size(), 2U);
  EXPECT_EQ(found[1].name, "kmd_db");
  EXPECT_EQ(found[1].program->pid, 31);
  EXPECT_EQ(found[1].tree.size(), 2U);
}
