#include "process/file_version.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <limits>
#include <string_view>

#include "tests/support/scratch_dir.h"
#include "tests/support/wait_until.h"

namespace {

TEST(file_version, knows_until_when_a_write_may_leave_the_same_time) {
  file_version version{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &version.modified);
  EXPECT_TRUE(wait_until([&] { return !version.is_of_this_tick(); }));
  version.modified.tv_sec += 60;
  EXPECT_TRUE(version.is_of_this_tick()) << "a time to come";
  version.modified.tv_sec -= 120;
  EXPECT_FALSE(version.is_of_this_tick());
}

TEST(file_version, takes_any_time_that_a_file_may_have) {
  file_version version{};
  version.modified.tv_sec = std::numeric_limits<time_t>::min();
  EXPECT_FALSE(version.is_of_this_tick());
  version.modified.tv_sec = std::numeric_limits<time_t>::max();
  EXPECT_TRUE(version.is_of_this_tick());
}

class file_version_of : public testing::Test {
 protected:
  file_version_of() { write_at("server.ini", "aa", {1000, 1}); }

  /// Writes a file that says it was written at that time.
  static void write_at(const char* path, std::string_view text, timespec time) {
    write_file(path, text);
    const timespec both[] = {time, time};
    ASSERT_EQ(::utimensat(AT_FDCWD, path, both, 0), 0);
  }
  static file_version now() { return file_version::of("server.ini").value(); }

  scratch_dir scratch_;
  working_dir inside_{scratch_.path()};
};

TEST_F(file_version_of, there_is_none_without_a_file) {
  EXPECT_FALSE(file_version::of("none").has_value());
  EXPECT_FALSE(file_version::of(nullptr).has_value());
}

TEST_F(file_version_of, stays_when_only_the_mode_changes) {
  const file_version before = now();
  EXPECT_EQ(::chmod("server.ini", 0600), 0);
  EXPECT_EQ(now(), before);
}

TEST_F(file_version_of, changes_with_the_size_and_with_the_time) {
  const file_version before = now();
  write_at("server.ini", "aaa", {1000, 1});
  EXPECT_NE(now(), before);
  write_at("server.ini", "bb", {1000, 2});
  EXPECT_NE(now(), before);
  write_at("server.ini", "bb", {1001, 1});
  EXPECT_NE(now(), before);
  EXPECT_TRUE(now().is_same_file_as(before));
  write_at("server.ini", "bb", {1000, 1});
  EXPECT_EQ(now(), before) << "the text itself is not looked at";
}

TEST_F(file_version_of, changes_with_the_file) {
  const file_version before = now();
  write_at("new", "aa", {1000, 1});
  std::filesystem::rename("new", "server.ini");
  EXPECT_NE(now(), before);
  EXPECT_FALSE(now().is_same_file_as(before));
}

}  // namespace
