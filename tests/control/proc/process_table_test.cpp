#include "control/proc/process_table.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/control/proc/recorded_tree.h"

using control::proc_dir;
using control::process;
using control::process_table;

namespace {

std::vector<pid_t> ids(const std::vector<const process*>& processes) {
  std::vector<pid_t> pids;
  for (const process* const one : processes)
    pids.push_back(one->pid);
  return pids;
}

process made(pid_t pid, pid_t parent, std::uint64_t started = 0) {
  process one;
  one.pid = pid;
  one.parent = parent;
  one.started = started;
  return one;
}

}  // namespace

TEST(process_table, lists_children_in_the_order_of_their_starts) {
  const process_table table({made(10, 1, 5), made(30, 10, 7), made(20, 10, 9), made(25, 10, 9)});
  EXPECT_EQ(ids(table.children(10)), (std::vector<pid_t>{30, 20, 25}));
  EXPECT_TRUE(table.children(30).empty());
  EXPECT_TRUE(table.children(999).empty());
}

TEST(process_table, lists_a_tree_with_parents_first) {
  const process_table table({made(10, 1), made(11, 10), made(12, 11), made(13, 10), made(99, 1)});
  EXPECT_EQ(ids(table.tree(10)), (std::vector<pid_t>{10, 11, 13, 12}));
  EXPECT_TRUE(table.tree(5).empty());
}

TEST(process_table, survives_a_circle_of_parents) {
  const process_table table({made(10, 12), made(11, 10), made(12, 11)});
  EXPECT_EQ(ids(table.tree(10)), (std::vector<pid_t>{10, 11, 12}));
}

TEST(process_table, reads_a_recorded_tree_without_its_zombies) {
  const recorded_tree tree({{1, 0, "init"}, {7, 1, "one"}, {8, 1, "two", {}, 1, 1, 1, 'Z'}});
  const process_table table{proc_dir(tree.root())};
  EXPECT_NE(table.find(7), nullptr);
  EXPECT_EQ(table.find(8), nullptr);
  EXPECT_EQ(table.all().size(), 2U);
}

TEST(process_table, reads_more_processes_than_one_thread_is_given) {
  std::vector<recorded_process> many;
  for (pid_t pid = 1; pid <= 500; ++pid)
    many.push_back({pid, pid / 2, "p"});
  const recorded_tree tree(many);
  const process_table table{proc_dir(tree.root())};
  EXPECT_EQ(table.all().size(), 500U);
  EXPECT_EQ(table.tree(1).size(), 500U);
}
