#include "runner/log/rotating_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <optional>

#include "tests/common/misc/process_state.h"
#include "tests/runner/log/log_place.h"
#include "tests/runner/log/moved_clock.h"
#include "tests/support/in_child.h"

using runner::line_stamp;
using runner::log_settings;
using runner::own_lines;
using runner::rotating_file;
using texts = std::vector<std::string>;

namespace {

using std::chrono::seconds;

/// The directory, what was said, and the object under test.
struct log_under_test {
  explicit log_under_test(std::uint64_t size, seconds age = seconds(0))
      : settings(place.settings(size)) {
    settings.age = age;
    open();
  }

  /// As a new process does.
  void open() { file.emplace(place.path(), settings, nullptr, messages); }
  void write(std::string_view text) { file->write(text); }

  log_place place;
  own_lines messages;
  log_settings settings;
  std::optional<rotating_file> file;
};

std::string error_for(const std::string& path) {
  own_lines messages;
  log_settings settings;
  const rotating_file file(path, settings, nullptr, messages);
  return file.error();
}

/// Longer than a file is left unlooked at.
constexpr std::chrono::milliseconds kAWhile{1500};

}  // namespace

TEST(rotating_file, appends_to_what_is_there) {
  log_under_test log(0);
  log.write("one\n");
  log.open();
  log.write("two\n");
  EXPECT_EQ(log.place.now(), "one\ntwo\n");
  EXPECT_EQ(log.file->error(), "");
}

TEST(rotating_file, can_be_read_by_all_and_written_by_its_owner_whatever_the_mask_is) {
  in_child([] {
    ::umask(0);
    const log_under_test log(0);
    struct stat status {};
    ASSERT_EQ(::stat(log.place.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644U);
  });
}

TEST(rotating_file, rotates_before_the_line_that_does_not_fit) {
  log_under_test log(8);
  log.write("aaa\nbbb\n");
  EXPECT_TRUE(log.place.rotated().empty());
  log.write("c\n");
  EXPECT_EQ(log.place.rotated_texts(), texts{"aaa\nbbb\n"});
  EXPECT_EQ(log.place.now(), "c\n");
}

TEST(rotating_file, rotates_within_a_piece_as_often_as_needed) {
  log_under_test log(8);
  log.write("aaa\nbbb\nccc\nddd\ne");
  EXPECT_EQ(log.place.rotated_texts(), (texts{"aaa\nbbb\n", "ccc\nddd\n"}));
  EXPECT_EQ(log.place.now(), "e");
}

TEST(rotating_file, ends_a_line_that_was_begun_in_the_same_file) {
  log_under_test log(8);
  log.write("aaa\nbb");
  log.write("bbbbbbbb\nc\n");
  EXPECT_EQ(log.place.rotated_texts(), texts{"aaa\nbbbbbbbbbb\n"});
  EXPECT_EQ(log.place.now(), "c\n");
}

TEST(rotating_file, leaves_a_line_whole_that_is_longer_than_a_file) {
  log_under_test log(8);
  log.write("a\n0123456789abcdef\nb\n");
  EXPECT_EQ(log.place.rotated_texts(), (texts{"a\n", "0123456789abcdef\n"}));
  EXPECT_EQ(log.place.now(), "b\n");
}

TEST(rotating_file, counts_what_an_earlier_run_has_written) {
  log_under_test log(8);
  log.write("aaa\nbb\n");
  log.open();
  log.write("cc\n");
  EXPECT_EQ(log.place.rotated_texts(), texts{"aaa\nbb\n"});
}

TEST(rotating_file, never_rotates_without_a_limit) {
  log_under_test log(0);
  for (int i = 0; i < 1000; ++i)
    log.write("a line of text\n");
  EXPECT_TRUE(log.place.rotated().empty());
}

TEST(rotating_file, begins_a_new_line_after_a_run_that_was_killed_inside_one) {
  log_under_test log(0);
  log.write("whole\ntor");
  log.open();
  EXPECT_FALSE(log.file->is_line_open());
  log.write("next\n");
  EXPECT_EQ(log.place.now(), "whole\ntor\nnext\n");
}

TEST(rotating_file, goes_on_after_a_kill_between_the_rename_and_the_new_file) {
  log_under_test log(8);
  log.write("aaa\n");
  log.place.write_rotated({1, runner::rotated_name::kind::plain}, "old\n");
  std::filesystem::remove(log.place.path());
  log.open();
  log.write("bbb\n");
  EXPECT_EQ(log.place.everything(), "old\nbbb\n");
}

TEST(rotating_file, is_not_opened_where_it_could_be_something_else) {
  const scratch_dir place;
  place.write("file", "");
  std::filesystem::create_symlink("file", place.path() / "link");
  std::filesystem::create_directory(place.path() / "directory");
  ASSERT_EQ(::mkfifo(place.file("pipe").c_str(), 0600), 0);
  const auto error = [&](const char* name) { return error_for(place.file(name)); };
  const std::string begin = "cannot open " + place.path().string() + "/";
  EXPECT_EQ(error("link"), begin + "link: it is a symbolic link");
  EXPECT_EQ(error("directory"), begin + "directory: Is a directory");
  EXPECT_EQ(error("pipe"), begin + "pipe: No such device or address");
  EXPECT_EQ(error("missing/file"), begin + "missing/file: No such file or directory");
  const int reader = ::open(place.file("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  EXPECT_EQ(error("pipe"), begin + "pipe: it is neither a file nor a device");
  ::close(reader);
}

TEST(rotating_file, writes_to_a_device_and_leaves_it_where_it_is) {
  own_lines messages;
  log_settings settings;
  settings.size = 4;
  settings.age = seconds(1);
  moved_clock clock;
  rotating_file file("/dev/null", settings, nullptr, messages);
  EXPECT_EQ(file.error(), "");
  file.write("more than that\nand more\n");
  clock.advance(seconds(5));
  EXPECT_FALSE(file.next_deadline());
  file.write("and more\n");
  EXPECT_TRUE(messages.empty());
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

TEST(rotating_file, follows_a_rename_by_others_at_the_end_of_a_line) {
  moved_clock clock;
  log_under_test log(0);
  log.write("one\ntw");
  std::filesystem::rename(log.place.path(), log.place.directory().file("x.log.1"));
  log.write("o\n");
  clock.advance(kAWhile);
  log.write("three\n");
  EXPECT_EQ(log.place.directory().read("x.log.1"), "one\ntwo\n");
  EXPECT_EQ(log.place.now(), "three\n");
}

TEST(rotating_file, follows_a_rename_by_others_even_if_no_piece_ends_with_a_line) {
  moved_clock clock;
  log_under_test log(0);
  log.write("one\ntw");
  std::filesystem::rename(log.place.path(), log.place.directory().file("x.log.1"));
  clock.advance(kAWhile);
  log.write("o\nthr");
  log.write("ee\nfou");
  EXPECT_EQ(log.place.directory().read("x.log.1"), "one\ntwo\n");
  EXPECT_EQ(log.place.now(), "three\nfou");
}

TEST(rotating_file, leaves_the_file_that_others_have_put_in_its_place) {
  log_under_test log(8);
  log.write("aaa\nbbb\n");
  std::filesystem::rename(log.place.path(), log.place.directory().file("x.log.1"));
  log.place.directory().write("x.log", "new\n");
  log.write("ccc\n");
  EXPECT_TRUE(log.place.rotated().empty());
  EXPECT_EQ(log.place.directory().read("x.log.1"), "aaa\nbbb\n");
  EXPECT_EQ(log.place.now(), "new\nccc\n");
}

TEST(rotating_file, makes_the_file_anew_that_others_have_removed) {
  moved_clock clock;
  log_under_test log(0);
  log.write("one\n");
  std::filesystem::remove(log.place.path());
  clock.advance(kAWhile);
  log.write("two\n");
  EXPECT_EQ(log.place.now(), "two\n");
}

TEST(rotating_file, knows_that_others_have_made_it_shorter) {
  moved_clock clock;
  log_under_test log(8);
  log.write("aaa\nbbb\n");
  std::filesystem::resize_file(log.place.path(), 0);
  clock.advance(kAWhile);
  log.write("ccc\n");
  EXPECT_TRUE(log.place.rotated().empty());
  EXPECT_EQ(log.place.now(), "ccc\n");
}

TEST(rotating_file, writes_on_to_what_it_has_when_the_directory_goes) {
  moved_clock clock;
  log_under_test log(8);
  log.write("aaa\nbbb\n");
  const std::string elsewhere = log.place.directory().path().string() + "-moved";
  std::filesystem::rename(log.place.directory().path(), elsewhere);
  log.write("ccc\n");
  log.write("ddd\n");
  EXPECT_EQ(read_file(elsewhere + "/x.log"), "aaa\nbbb\nccc\nddd\n");
  EXPECT_EQ(log.messages.take(),
            "keelmond-run: cannot open " + log.place.path() + ": No such file or directory\n");
  std::filesystem::rename(elsewhere, log.place.directory().path());
  clock.advance(kAWhile);
  log.write("eee\n");
  EXPECT_EQ(log.place.everything(), "aaa\nbbb\nccc\nddd\neee\n");
  EXPECT_TRUE(log.messages.empty());
}

TEST(rotating_file, keeps_what_it_writes_on_while_no_new_file_can_be_opened) {
  moved_clock clock;
  log_under_test log(8);
  log.settings.keep = 0;
  log.open();
  log.write("aaa\nbbb\n");
  {
    const no_more_descriptors limit;
    log.write("ccc\n");
  }
  EXPECT_FALSE(log.place.directory().has("x.log"));
  EXPECT_EQ(log.place.rotated_texts(), texts{"aaa\nbbb\nccc\n"});
  clock.advance(kAWhile);
  log.write("ddd\n");
  EXPECT_TRUE(log.place.rotated().empty());
  EXPECT_EQ(log.place.now(), "ddd\n");
}

TEST(rotating_file, says_once_that_it_cannot_be_rotated_and_grows) {
  log_under_test log(4);
  log.write("aaa\n");
  // A name that is too long for what rotation adds to it.
  const std::string path = log.place.directory().file(std::string(250, 'x'));
  rotating_file file(path, log.settings, nullptr, log.messages);
  ASSERT_EQ(file.error(), "");
  file.write("aaa\nbbb\nccc\n");
  EXPECT_EQ(read_file(path), "aaa\nbbb\nccc\n");
  EXPECT_EQ(log.messages.take(), "keelmond-run: cannot rotate " + path + ": File name too long\n");
}

TEST(rotating_file, rotates_what_is_too_old_without_waiting_for_a_line) {
  moved_clock clock;
  log_under_test log(0, seconds(100));
  EXPECT_FALSE(log.file->next_deadline());
  log.write("one\n");
  const auto deadline = log.file->next_deadline();
  ASSERT_TRUE(deadline);
  EXPECT_GT(*deadline, runner::steady_now() + seconds(50));
  EXPECT_LE(*deadline, runner::steady_now() + seconds(100));
  log.file->on_deadline();
  EXPECT_TRUE(log.place.rotated().empty());
  clock.advance(seconds(101));
  log.file->on_deadline();
  EXPECT_EQ(log.place.rotated_texts(), texts{"one\n"});
  EXPECT_EQ(log.place.now(), "");
  EXPECT_FALSE(log.file->next_deadline());
}

TEST(rotating_file, becomes_too_old_at_the_end_of_a_line) {
  moved_clock clock;
  log_under_test log(0, seconds(100));
  log.write("one\ntw");
  clock.advance(seconds(101));
  EXPECT_FALSE(log.file->next_deadline());
  log.file->on_deadline();
  log.write("o\nthree\n");
  EXPECT_EQ(log.place.rotated_texts(), texts{"one\ntwo\n"});
  EXPECT_EQ(log.place.now(), "three\n");
}

TEST(rotating_file, keeps_its_age_over_a_new_start) {
  moved_clock clock;
  log_under_test log(0, seconds(100));
  log.write("one\n");
  clock.advance(seconds(60));
  log.open();
  const auto deadline = log.file->next_deadline();
  ASSERT_TRUE(deadline);
  EXPECT_LE(*deadline, runner::steady_now() + seconds(41));
  clock.advance(seconds(60));
  log.open();
  log.file->on_deadline();
  EXPECT_EQ(log.place.rotated_texts(), texts{"one\n"});
}

TEST(rotating_file, is_not_too_old_by_a_clock_on_the_wall_that_jumps) {
  moved_clock clock;
  log_under_test log(0, seconds(100));
  log.write("one\n");
  clock.advance_wall(std::chrono::hours(1000));
  log.file->on_deadline();
  log.write("two\n");
  EXPECT_TRUE(log.place.rotated().empty());
  clock.advance_wall(std::chrono::hours(-2000));
  log.open();
  ASSERT_TRUE(log.file->next_deadline());
  EXPECT_LE(*log.file->next_deadline(), runner::steady_now() + seconds(100));
}

TEST(rotating_file, has_no_age_once_others_have_emptied_it) {
  moved_clock clock;
  log_under_test log(0, seconds(100));
  log.write("one\n");
  std::filesystem::resize_file(log.place.path(), 0);
  clock.advance(seconds(101));
  log.file->on_deadline();
  EXPECT_FALSE(log.file->next_deadline());
  EXPECT_TRUE(log.place.rotated().empty());
}

TEST(rotating_file, tries_again_later_what_is_too_old_and_cannot_be_rotated) {
  moved_clock clock;
  log_under_test log(0, seconds(100));
  const std::string path = log.place.directory().file(std::string(250, 'x'));
  rotating_file file(path, log.settings, nullptr, log.messages);
  file.write("one\n");
  clock.advance(seconds(101));
  file.on_deadline();
  ASSERT_TRUE(file.next_deadline());
  EXPECT_GT(*file.next_deadline(), runner::steady_now());
  EXPECT_FALSE(log.messages.empty());
}
