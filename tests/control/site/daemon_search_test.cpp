#include "control/site/daemon_search.h"

#include <gtest/gtest.h>

#include "tests/control/proc/recorded_tree.h"
#include "tests/support/scratch_dir.h"

using control::daemon_search;
using control::proc_dir;
using control::process_table;

namespace {

daemon_search search(const recorded_tree& tree, const scratch_dir& place) {
  const proc_dir proc(tree.root());
  return control::find_daemon(proc, process_table(proc), {place.path().string()});
}

}  // namespace

TEST(daemon_search, finds_the_process_with_threads_that_holds_the_pid_file) {
  const scratch_dir place;
  place.write("run.pid", "");
  const recorded_tree tree({{10, 1, "keelmond", {}, 3},
                            {20, 1, "renamed", {}, 3},
                            {21, 20, "keelmond", {}, 1},
                            {30, 1, "tail", {}, 1}});
  tree.link(10, "fd/4", "/elsewhere/run.pid");
  tree.link(20, "fd/4", place.file("run.pid"));
  tree.link(21, "fd/4", place.file("run.pid"));
  tree.link(30, "fd/3", place.file("run.pid"));
  const daemon_search found = search(tree, place);
  ASSERT_TRUE(found.daemon);
  EXPECT_EQ(found.daemon->pid, 20);
  EXPECT_TRUE(found.more.empty());
  EXPECT_TRUE(found.pid_file);
  EXPECT_FALSE(found.pid_file_lost);
}

TEST(daemon_search, finds_the_daemon_whose_pid_file_was_deleted) {
  const scratch_dir place;
  const recorded_tree tree({{20, 1, "keelmond", {}, 3}});
  tree.link(20, "fd/4", place.file("run.pid") + " (deleted)");
  const daemon_search found = search(tree, place);
  ASSERT_TRUE(found.daemon);
  EXPECT_TRUE(found.pid_file_lost);
  EXPECT_FALSE(found.pid_file);
}

TEST(daemon_search, prefers_the_holder_of_the_present_file_and_tells_of_the_other) {
  const scratch_dir place;
  place.write("run.pid", "");
  const recorded_tree tree({{20, 1, "keelmond", {}, 3}, {30, 1, "keelmond", {}, 3}});
  tree.link(20, "fd/4", place.file("run.pid") + " (deleted)");
  tree.link(30, "fd/4", place.file("run.pid"));
  const daemon_search found = search(tree, place);
  ASSERT_TRUE(found.daemon);
  EXPECT_EQ(found.daemon->pid, 30);
  ASSERT_EQ(found.more.size(), 1U);
  EXPECT_EQ(found.more[0].pid, 20);
  EXPECT_FALSE(found.pid_file_lost);
}

TEST(daemon_search, tells_a_left_over_pid_file_from_one_that_somebody_hidden_may_hold) {
  const scratch_dir place;
  place.write("run.pid", "4711");
  const recorded_tree tree({{10, 1, "keelmond", {}, 3},
                            {11, 1, "keelmond", {}, 3},
                            {12, 1, "x"},
                            {13, 1, "keelmond", {}, 2, 1000, 50, 'Z'}});
  tree.link(10, "cwd", "/elsewhere");
  const daemon_search found = search(tree, place);
  EXPECT_FALSE(found.daemon);
  EXPECT_TRUE(found.pid_file);
  ASSERT_EQ(found.hidden.size(), 1U);
  EXPECT_EQ(found.hidden[0].pid, 11);
}
