#include "control/site/snapshot.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/control/proc/recorded_tree.h"
#include "tests/support/scratch_dir.h"

using control::config_watch;
using control::proc_dir;

namespace {

/// A directory with a configuration, and a daemon that watches.
class snapshot : public testing::Test {
 protected:
  snapshot() {
    std::filesystem::create_directory(place.path() / "config");
    place.write("config/server.ini", "[keelmond]\nlinux=1\nsvr1=kmd_web\n");
    place.write("run.pid", "");
    tree.link(20, "fd/3", place.file("run.pid"));
    tree.link(20, "fd/4", "anon_inode:inotify");
  }

  /// Has the daemon watch files, given by their inodes and with the events in hexadecimal.
  void watch(const std::vector<std::pair<ino_t, const char*>>& files) const {
    std::string info = "pos:\t0\nflags:\t02000000\n";
    for (const auto& [inode, events] : files) {
      char line[128];
      std::snprintf(line, sizeof line, "inotify wd:1 ino:%lx sdev:fe00001 mask:%s ignored_mask:0\n",
                    static_cast<unsigned long>(inode), events);
      info += line;
    }
    tree.write(20, "fdinfo/4", info);
  }
  [[nodiscard]] ino_t inode(const std::string& name) const {
    return control::identify_file(place.file(name))->inode;
  }
  [[nodiscard]] config_watch look() const {
    const proc_dir proc(tree.root());
    return control::look_at(proc, {place.path().string()}).watch;
  }

  scratch_dir place;
  recorded_tree tree{{{20, 1, "keelmond", {"keelmond"}, 3, 400000}}};
};

}  // namespace

TEST_F(snapshot, knows_a_daemon_that_watches_the_file) {
  watch({{inode("config/server.ini"), "2"}});
  EXPECT_TRUE(look().file);
  EXPECT_TRUE(look().sees_replacement());
  EXPECT_FALSE(look().is_lost());
}

TEST_F(snapshot, knows_a_daemon_that_watches_the_name_beside_an_old_file) {
  watch({{inode("run.pid"), "2"}, {inode("config"), "3c8"}});
  EXPECT_FALSE(look().file);
  EXPECT_TRUE(look().sees_replacement());
  EXPECT_FALSE(look().is_lost());
}

TEST_F(snapshot, knows_a_daemon_whose_watch_went_away_with_the_old_file) {
  watch({{inode("run.pid"), "2"}});
  EXPECT_TRUE(look().is_lost());
}

TEST_F(snapshot, takes_a_daemon_without_watches_for_one_in_its_pause) {
  watch({});
  EXPECT_FALSE(look().sees_replacement());
  EXPECT_FALSE(look().is_lost());
}

TEST_F(snapshot, knows_ages_and_starts) {
  watch({});
  const proc_dir proc(tree.root());
  const control::snapshot now = control::look_at(proc, {place.path().string()});
  ASSERT_TRUE(now.search.daemon);
  EXPECT_DOUBLE_EQ(now.age_of(*now.search.daemon), 1000);
  EXPECT_EQ(now.start_of(*now.search.daemon), 1700004000);
  ASSERT_EQ(now.programs.size(), 1U);
  EXPECT_EQ(now.find_running("kmd_web"), nullptr);
}

TEST(daemon_may, does_not_judge_a_file_with_an_access_control_list) {
  const scratch_dir place;
  place.write("listed", "");
  const std::string path = place.file("listed");
  ::chmod(path.c_str(), 0600);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  control::snapshot now;
  now.daemon_user = status.st_uid + 1;
  EXPECT_FALSE(control::daemon_may(now, path, status, S_IWOTH));
  // Version 2, and for each entry what it is about, its rights and an id: another user may write.
  const std::array<std::uint16_t, 22> list = {2,      0,      0x01, 6, 0xffff, 0xffff, 0x02, 6,
                                              7,      0,      0x04, 0, 0xffff, 0xffff, 0x10, 6,
                                              0xffff, 0xffff, 0x20, 0, 0xffff, 0xffff};
  if (::setxattr(path.c_str(), "system.posix_acl_access", list.data(), sizeof list, 0) != 0)
    GTEST_SKIP() << "no such lists on this file system";
  EXPECT_TRUE(control::daemon_may(now, path, status, S_IWOTH));
}
