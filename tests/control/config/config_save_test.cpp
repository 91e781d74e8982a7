#include "control/config/config_save.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "control/text/failure.h"
#include "tests/support/scratch_dir.h"

namespace fs = std::filesystem;
using control::failure;

namespace {

struct stat status_of(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0);
  return status;
}

/// A directory with a file whose content is "old".
class config_save : public testing::Test {
 protected:
  config_save() { place.write("server.ini", "old"); }

  void save(const std::string& text) const {
    control::save_config(path, text, *control::read_config(path));
  }
  [[nodiscard]] std::size_t files() const {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(place.path()), fs::directory_iterator()));
  }

  scratch_dir place;
  const std::string path = place.file("server.ini");
};

}  // namespace

TEST_F(config_save, puts_a_new_file_in_place_that_looks_like_the_old_one) {
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  const struct stat before = status_of(path);
  save("new text");
  const struct stat after = status_of(path);
  EXPECT_EQ(place.read("server.ini"), "new text");
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(after.st_uid, before.st_uid);
  EXPECT_NE(after.st_ino, before.st_ino);
  EXPECT_EQ(files(), 1U);
}

TEST_F(config_save, keeps_the_owner) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may give files away";
  ASSERT_EQ(::chown(path.c_str(), 1234, 2345), 0);
  save("new");
  EXPECT_EQ(status_of(path).st_uid, 1234U);
  EXPECT_EQ(status_of(path).st_gid, 2345U);
}

TEST_F(config_save, keeps_the_group_where_the_directory_gives_another_one) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may give directories away";
  const gid_t before = status_of(path).st_gid;
  ASSERT_EQ(::chown(place.path().c_str(), 0, 2345), 0);
  ASSERT_EQ(::chmod(place.path().c_str(), 02775), 0);
  save("new");
  EXPECT_EQ(status_of(path).st_gid, before);
}

TEST_F(config_save, leaves_symbolic_links_where_they_are) {
  fs::create_directory(place.path() / "real");
  fs::rename(path, place.path() / "real" / "file.ini");
  fs::create_symlink("real/file.ini", path);
  save("new");
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(place.read("real/file.ini"), "new");
}

TEST_F(config_save, writes_a_file_with_two_names_in_place) {
  fs::create_hard_link(path, place.file("second"));
  const struct stat before = status_of(path);
  save("n");
  EXPECT_EQ(status_of(path).st_ino, before.st_ino);
  EXPECT_EQ(place.read("second"), "n");
}

TEST_F(config_save, tells_of_the_new_file_before_it_has_the_name) {
  std::string told;
  std::string at_that_time;
  const auto before = *control::read_config(path);
  control::save_config(path, "new", before, [&](const std::string& file) {
    told = read_file(file);
    at_that_time = place.read("server.ini");
  });
  EXPECT_EQ(told, "new");
  EXPECT_EQ(at_that_time, "old");
}

TEST_F(config_save, does_not_overwrite_what_somebody_else_saved) {
  const auto before = *control::read_config(path);
  place.write("server.ini", "theirs");
  EXPECT_THROW(control::save_config(path, "mine", before), failure);
  EXPECT_EQ(place.read("server.ini"), "theirs");
  EXPECT_EQ(files(), 1U);
}

TEST_F(config_save, leaves_no_draft_behind_when_it_fails) {
  const auto before = *control::read_config(path);
  const auto fail = [](const std::string&) { throw failure("no"); };
  EXPECT_THROW(control::save_config(path, "new", before, fail), failure);
  EXPECT_EQ(place.read("server.ini"), "old");
  EXPECT_EQ(files(), 1U);
}

TEST_F(config_save, lets_one_change_the_file_at_a_time) {
  const std::string file = path;
  const control::config_lock held(file);
  EXPECT_THROW(control::config_lock(file, std::chrono::milliseconds(30)), failure);
}

TEST_F(config_save, gives_the_lock_back) {
  { const control::config_lock held(path); }
  EXPECT_NO_THROW(control::config_lock(path, std::chrono::milliseconds(0)));
  EXPECT_THROW(control::config_lock("/nonexistent/server.ini"), failure);
}
