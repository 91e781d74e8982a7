#include "runner/launch/control_group.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/scratch_dir.h"

namespace fs = std::filesystem;

using runner::control_group;
using runner::group_limits;

namespace {

/// Directories and files like those that the kernel makes, as far as they are looked at.
class imagined_groups final {
 public:
  void add(const std::string& group, const std::string& controllers, const std::string& offered) {
    fs::create_directories(root_.path() / group);
    root_.write(group + "/cgroup.controllers", controllers);
    root_.write(group + "/cgroup.subtree_control", offered);
  }
  /// The files that a new group would have at once.
  void expect(const std::string& group) {
    fs::create_directories(root_.path() / group);
    for (const char* const file : {"memory.max", "cpu.max", "pids.max", "cgroup.kill"})
      root_.write(group + "/" + file, "");
  }
  /// A group "own" that may give out places for processes, and the files of "own/x".
  void expect_usual() {
    add("own", "pids", "pids");
    expect("own/x");
  }
  /// What there is of it goes, as it does in the kernel.
  void empty(const std::string& group) {
    for (const auto& file : fs::directory_iterator(root_.path() / group))
      fs::remove(file.path());
  }
  void lose(const std::string& file) { fs::remove(root_.path() / file); }
  [[nodiscard]] bool has(const std::string& group) const { return root_.has(group); }
  [[nodiscard]] std::string read(const std::string& file) const { return root_.read(file); }
  [[nodiscard]] runner::group_place place(const std::string& own) const {
    return {root_.path().string(), own};
  }

 private:
  scratch_dir root_;
};

constexpr group_limits kAll{1U << 30, 150, 64};

}  // namespace

TEST(control_group, is_made_below_the_own_one_with_its_limits) {
  imagined_groups groups;
  groups.add("own", "cpu memory pids", "cpu memory pids");
  groups.expect("own/keelmond.kmd_x");
  control_group group;
  EXPECT_EQ(group.make(kAll, "keelmond.kmd_x", groups.place("/own")).text, "");
  EXPECT_EQ(groups.read("own/keelmond.kmd_x/memory.max"), "1073741824");
  EXPECT_EQ(groups.read("own/keelmond.kmd_x/cpu.max"), "150000 100000");
  EXPECT_EQ(groups.read("own/keelmond.kmd_x/pids.max"), "64");
  EXPECT_TRUE(group.entrance().ends_with("/own/keelmond.kmd_x/cgroup.procs"));
  group.remove();
  EXPECT_EQ(groups.read("own/keelmond.kmd_x/cgroup.kill"), "1");
  EXPECT_EQ(group.entrance(), "");
}

TEST(control_group, is_made_beside_the_own_one_where_that_cannot_have_groups) {
  imagined_groups groups;
  groups.add("service", "memory pids", "memory pids");
  groups.add("service/supervisor", "", "");
  groups.expect("service/keelmond.kmd_x");
  control_group group;
  EXPECT_EQ(group.make({0, 0, 5}, "keelmond.kmd_x", groups.place("/service/supervisor")).text, "");
  EXPECT_EQ(groups.read("service/keelmond.kmd_x/pids.max"), "5");
}

TEST(control_group, turns_controllers_on_that_are_there) {
  imagined_groups groups;
  groups.add("own", "memory", "");
  groups.expect("own/keelmond.kmd_x");
  control_group group;
  EXPECT_EQ(group.make({4096, 0, 0}, "keelmond.kmd_x", groups.place("/own")).text, "");
  EXPECT_EQ(groups.read("own/cgroup.subtree_control"), "+memory");
}

TEST(control_group, says_so_where_there_are_none_or_none_is_delegated) {
  imagined_groups groups;
  groups.add("own", "", "");
  control_group group;
  EXPECT_EQ(group.make(kAll, "x", {}).text, "there are no control groups of version 2");
  const runner::group_failure failure = group.make(kAll, "x", groups.place("/own"));
  EXPECT_NE(failure.text.find("/own is not delegated"), std::string::npos);
  EXPECT_EQ(group.entrance(), "");
}

TEST(control_group, names_the_limit_that_it_cannot_hold) {
  imagined_groups groups;
  groups.add("own", "memory", "memory");
  groups.expect("own/x");
  control_group group;
  EXPECT_EQ(group.make({4096, 150, 5}, "x", groups.place("/own")).key, "cpu");
  EXPECT_EQ(group.make({4096, 0, 5}, "x", groups.place("/own")).key, "tasks");
  EXPECT_EQ(group.make({4096, 0, 0}, "x", groups.place("/own")).key, "");
}

TEST(control_group, a_limit_that_cannot_be_set_is_told) {
  imagined_groups groups;
  groups.add("own", "memory cpu", "memory cpu");
  groups.expect("own/x");
  groups.lose("own/x/cpu.max");
  control_group group;
  const runner::group_failure failure = group.make({4096, 150, 0}, "x", groups.place("/own"));
  EXPECT_EQ(failure.key, "cpu");
  EXPECT_NE(failure.text.find("cpu.max: "), std::string::npos);
  EXPECT_EQ(group.entrance(), "");
}

TEST(control_group, has_a_name_of_its_own_below_each_supervisor) {
  using runner::group_name;
  EXPECT_EQ(group_name("kmd_x", ""), "keelmond.kmd_x.811c9dc5");
  EXPECT_EQ(group_name("kmd_x", "/srv/a"), group_name("kmd_x", "/srv/a"));
  EXPECT_NE(group_name("kmd_x", "/srv/a"), group_name("kmd_x", "/srv/b"));
}

TEST(control_group, what_an_earlier_launcher_left_in_it_is_killed) {
  imagined_groups groups;
  groups.expect_usual();
  control_group group;
  EXPECT_EQ(group.make({0, 0, 5}, "x", groups.place("/own")).text, "");
  EXPECT_EQ(groups.read("own/x/cgroup.kill"), "1");
}

TEST(control_group, one_that_is_busy_is_removed_later) {
  imagined_groups groups;
  groups.expect_usual();
  control_group group;
  EXPECT_EQ(group.make({0, 0, 5}, "x", groups.place("/own")).text, "");
  group.remove();
  EXPECT_TRUE(groups.has("own/x"));
  groups.empty("own/x");
  group.remove();
  EXPECT_FALSE(groups.has("own/x"));
}

TEST(control_group, one_that_was_busy_and_is_used_again_stays) {
  imagined_groups groups;
  groups.expect_usual();
  control_group group;
  EXPECT_EQ(group.make({0, 0, 5}, "x", groups.place("/own")).text, "");
  group.remove();
  EXPECT_EQ(group.make({0, 0, 6}, "x", groups.place("/own")).text, "");
  EXPECT_TRUE(group.entrance().ends_with("/own/x/cgroup.procs"));
  EXPECT_EQ(groups.read("own/x/pids.max"), "6");
}
