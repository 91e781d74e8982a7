#include "control/proc/proc_dir.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <stdexcept>

#include "common/misc/unique_fd.h"
#include "tests/control/proc/recorded_tree.h"
#include "tests/support/scratch_dir.h"

using control::proc_dir;

TEST(proc_dir, reads_a_process_whose_name_has_blanks_and_parentheses) {
  const recorded_tree tree({{7, 3, "a) (b c", {"x", "", "y"}, 4, 123, 9, 'R', 55, 66}});
  const proc_dir proc(tree.root());
  const auto found = proc.find(7);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->name, "a) (b c");
  EXPECT_EQ(found->parent, 3);
  EXPECT_EQ(found->session, 9);
  EXPECT_EQ(found->state, 'R');
  EXPECT_EQ(found->threads, 4);
  EXPECT_EQ(found->started, 123U);
  EXPECT_EQ(found->cpu, 55U);
  EXPECT_EQ(found->resident, 66U);
  EXPECT_EQ(proc.command_line(7), (std::vector<std::string>{"x", "", "y"}));
  EXPECT_EQ(proc.pids(), std::vector<pid_t>{7});
}

TEST(proc_dir, takes_a_zombie_for_ended_and_a_torn_line_for_none) {
  const recorded_tree tree({{7, 1, "gone", {}, 1, 1000, 50, 'Z'}, {8, 1, "torn"}});
  tree.write(8, "stat", "8 (torn) S 1 0 0");
  const proc_dir proc(tree.root());
  EXPECT_FALSE(proc.find(7));
  EXPECT_FALSE(proc.find(8));
  EXPECT_FALSE(proc.find(9));
}

TEST(proc_dir, takes_a_process_whose_first_thread_alone_has_ended_for_alive) {
  const recorded_tree tree({{7, 1, "one", {}, 3, 1000, 50, 'Z'}});
  EXPECT_TRUE(proc_dir(tree.root()).find(7));
}

TEST(proc_dir, counts_the_processor_time_of_children_that_have_ended) {
  const recorded_tree tree({{7, 1, "one"}});
  tree.write(7, "stat", "7 (one) S 1 0 0 0 -1 0 0 0 0 0 100 20 3 4 20 0 1 0 1000 0 66\n");
  const auto found = proc_dir(tree.root()).find(7);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->cpu, 127U);
}

TEST(proc_dir, tells_a_process_from_a_later_one_with_its_id) {
  const recorded_tree tree({{7, 1, "one", {}, 1, 1000}});
  const proc_dir proc(tree.root());
  control::process known = *proc.find(7);
  EXPECT_TRUE(proc.is_alive(known));
  known.started = 999;
  EXPECT_FALSE(proc.is_alive(known));
}

TEST(proc_dir, reads_the_share_of_memory_or_else_what_is_resident) {
  const recorded_tree tree({{7, 1, "one"}, {8, 1, "two"}, {9, 1, "three"}});
  tree.write(7, "smaps_rollup", "55-77 ---p 0 0 [rollup]\nRss:   900 kB\nPss:   12 kB\n");
  tree.write(8, "statm", "100 3 2 1 0 0 0\n");
  const proc_dir proc(tree.root());
  EXPECT_EQ(proc.memory(7), 12U * 1024);
  EXPECT_EQ(proc.memory(8), 3U * static_cast<unsigned long>(::sysconf(_SC_PAGESIZE)));
  EXPECT_EQ(proc.memory(9), 0U);
}

TEST(proc_dir, reads_one_variable_of_the_environment) {
  const recorded_tree tree({{7, 1, "one"}});
  tree.write(7, "environ", std::string("XPWD=no\0PWD=/srv/a b\0Z=\0", 24));
  const proc_dir proc(tree.root());
  EXPECT_EQ(proc.environment(7, "PWD"), "/srv/a b");
  EXPECT_EQ(proc.environment(7, "Z"), "");
  EXPECT_EQ(proc.environment(7, "NONE"), "");
}

TEST(proc_dir, finds_who_holds_a_file_by_what_it_is) {
  const scratch_dir place;
  place.write("run.pid", "");
  place.write("other", "");
  const std::string path = place.file("run.pid");
  const recorded_tree tree({{7, 1, "one"}, {8, 1, "two"}, {9, 1, "three"}, {10, 1, "four"}});
  tree.link(7, "fd/0", "/dev/null");
  tree.link(7, "fd/5", path);
  tree.link(8, "fd/5", place.file("other"));
  tree.link(9, "fd/5", path + " (deleted)");
  const proc_dir proc(tree.root());
  const auto file = control::identify_file(path);
  ASSERT_TRUE(file);
  EXPECT_EQ(proc.holds(7, path, file), proc_dir::hold::present);
  EXPECT_EQ(proc.holds(8, path, file), proc_dir::hold::none);
  EXPECT_EQ(proc.holds(9, path, file), proc_dir::hold::removed);
  EXPECT_EQ(proc.holds(10, path, file), proc_dir::hold::none);
}

TEST(proc_dir, knows_the_groups_of_a_process) {
  const recorded_tree tree({{7, 1, "one"}});
  tree.write(7, "status", "Gid:\t1\t22\t3\t4\nFDSize:\t64\nGroups:\t33 44 \n");
  const proc_dir proc(tree.root());
  EXPECT_EQ(proc.groups(7), (std::vector<gid_t>{22, 33, 44}));
  EXPECT_TRUE(proc.groups(8).empty());
}

TEST(proc_dir, does_not_believe_a_user_who_opens_the_file_of_another) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can make a file of another user";
  const scratch_dir place;
  place.write("run.pid", "");
  const std::string path = place.file("run.pid");
  ASSERT_EQ(::chown(path.c_str(), 1001, 1001), 0);
  const recorded_tree tree({{7, 1, "owner"}, {8, 1, "stranger"}, {9, 1, "root"}});
  for (const pid_t pid : {7, 8, 9})
    tree.link(pid, "fd/5", path);
  tree.write(7, "status", "Name:\towner\nUid:\t1001\t1001\t1001\t1001\n");
  tree.write(8, "status", "Name:\tstranger\nUid:\t1001\t1002\t1002\t1002\n");
  tree.write(9, "status", "Name:\troot\nUid:\t0\t0\t0\t0\n");
  const proc_dir proc(tree.root());
  const auto file = control::identify_file(path);
  EXPECT_EQ(proc.holds(7, path, file), proc_dir::hold::present);
  EXPECT_EQ(proc.holds(8, path, file), proc_dir::hold::none);
  EXPECT_EQ(proc.holds(9, path, file), proc_dir::hold::present);
}

TEST(proc_dir, knows_what_this_very_process_watches) {
  const scratch_dir place;
  place.write("watched", "");
  const unique_fd instance(::inotify_init1(IN_CLOEXEC));
  const proc_dir proc;
  EXPECT_TRUE(proc.watched_files(::getpid()).empty());
  ASSERT_GE(::inotify_add_watch(instance.get(), place.file("watched").c_str(), IN_MODIFY), 0);
  const auto watched = proc.watched_files(::getpid());
  ASSERT_EQ(watched.size(), 1U);
  // On file systems with devices of their own the number differs; the inode is always the same.
  EXPECT_EQ(watched[0].events, static_cast<std::uint32_t>(IN_MODIFY));
  EXPECT_EQ(watched[0].id.inode, control::identify_file(place.file("watched"))->inode);
}

TEST(proc_dir, knows_which_signals_are_pending_and_let_in) {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGUSR1);
  const proc_dir proc;
  EXPECT_TRUE(proc.lets_in(::getpid(), SIGUSR1));
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  EXPECT_FALSE(proc.lets_in(::getpid(), SIGUSR1));
  EXPECT_FALSE(proc.is_pending(::getpid(), SIGUSR1));
  ::kill(::getpid(), SIGUSR1);
  EXPECT_TRUE(proc.is_pending(::getpid(), SIGUSR1));
  EXPECT_FALSE(proc.is_pending(::getpid(), SIGUSR2));
  const timespec none{};
  EXPECT_EQ(::sigtimedwait(&set, nullptr, &none), SIGUSR1);
  ::sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

TEST(proc_dir, knows_the_machines_times) {
  const recorded_tree tree({});
  const proc_dir proc(tree.root());
  EXPECT_DOUBLE_EQ(proc.uptime().count(), 5000.0);
  EXPECT_EQ(proc.boot_time(), 1700000000);
}

TEST(proc_dir, says_when_there_is_none) {
  EXPECT_THROW(proc_dir("/nonexistent"), std::runtime_error);
}
