#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>

#include "runner/log/rotating_file.h"
#include "tests/runner/log/log_place.h"
#include "tests/runner/log/moved_clock.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"

using runner::line_stamp;
using runner::own_lines;
using runner::rotating_file;

namespace {

/// A log on a disk that has only so much room for what is written from now on.
class limited_disk final {
 public:
  explicit limited_disk(std::size_t size = 0)
      : settings_(place_.settings(size)), file_(place_.path(), settings_, nullptr, messages_) {}

  /// What is taken back frees nothing.
  void leave_room_for(std::size_t bytes, int reason = ENOSPC) {
    room_ = bytes;
    faults.write = [this, reason](int fd, const void* text, std::size_t size) -> ssize_t {
      const std::size_t count = std::min(size, room_);
      if (count == 0 && size > 0) {
        errno = reason;
        return -1;
      }
      room_ -= count;
      return real::write(fd, text, count);
    };
  }
  void make_room() { faults.write = nullptr; }
  void write(std::string_view text) { file_.write(text); }

  [[nodiscard]] std::string text() const { return place_.now(); }
  [[nodiscard]] const log_place& place() const { return place_; }
  [[nodiscard]] const rotating_file& file() const { return file_; }

 private:
  const no_faults_afterwards restore_;
  log_place place_;
  own_lines messages_;
  runner::log_settings settings_;
  rotating_file file_;
  std::size_t room_ = 0;
};

}  // namespace

TEST(full_disk, is_told_of_once_when_there_is_room_again) {
  limited_disk disk;
  disk.write("one\n");
  disk.leave_room_for(0);
  disk.write("two\n");
  disk.write("three\nfour\n");
  EXPECT_EQ(disk.text(), "one\n");
  disk.make_room();
  disk.write("five\n");
  disk.write("six\n");
  EXPECT_EQ(disk.text(), "one\nkeelmond-run: 3 lines lost: No space left on device\nfive\nsix\n");
}

TEST(full_disk, leaves_no_torn_line) {
  limited_disk disk;
  disk.leave_room_for(6);
  disk.write("one\ntwo\nthree\n");
  EXPECT_EQ(disk.text(), "one\n");
  disk.make_room();
  disk.write("four\n");
  EXPECT_EQ(disk.text(), "one\nkeelmond-run: 2 lines lost: No space left on device\nfour\n");
}

TEST(full_disk, loses_the_rest_of_a_line_with_its_beginning) {
  limited_disk disk;
  disk.leave_room_for(0);
  disk.write("beginning");
  EXPECT_TRUE(disk.file().is_line_open());
  disk.make_room();
  disk.write(" middle");
  EXPECT_TRUE(disk.file().is_line_open());
  disk.write(" end\nnext\n");
  EXPECT_EQ(disk.text(), "keelmond-run: 1 line lost: No space left on device\nnext\n");
}

TEST(full_disk, ends_a_line_whose_beginning_is_written_already) {
  limited_disk disk;
  disk.write("begin");
  disk.leave_room_for(2);
  disk.write("ning end\n");
  EXPECT_EQ(disk.text(), "begin");
  disk.make_room();
  disk.write("next\n");
  EXPECT_EQ(disk.text(), "begin\nkeelmond-run: 1 line lost: No space left on device\nnext\n");
}

TEST(full_disk, does_not_fill_the_last_room_with_reports) {
  limited_disk disk;
  const std::string report = "keelmond-run: 1 line lost: No space left on device\n";
  disk.leave_room_for(0);
  disk.write("one\n");
  disk.leave_room_for(report.size() + 2);
  disk.write("two\n");
  EXPECT_EQ(disk.text(), "");
  disk.leave_room_for(report.size() - 2);
  disk.write("three\n");
  EXPECT_EQ(disk.text(), "");
  disk.make_room();
  disk.write("four\n");
  EXPECT_EQ(disk.text(), "keelmond-run: 3 lines lost: No space left on device\nfour\n");
}

TEST(full_disk, begins_a_new_count_after_a_line_that_fitted) {
  limited_disk disk;
  disk.leave_room_for(0);
  disk.write("one\n");
  disk.leave_room_for(60);
  disk.write("two\n");
  const std::string first = "keelmond-run: 1 line lost: No space left on device\ntwo\n";
  ASSERT_EQ(disk.text(), first);
  disk.write("a line for which there is no room\nand another one\n");
  disk.make_room();
  disk.write("four\n");
  EXPECT_EQ(disk.text(), first + "keelmond-run: 2 lines lost: No space left on device\nfour\n");
}

TEST(full_disk, is_not_the_only_reason) {
  limited_disk disk;
  disk.leave_room_for(0, EIO);
  disk.write("one\n");
  disk.make_room();
  disk.write("two\n");
  EXPECT_EQ(disk.text(), "keelmond-run: 1 line lost: Input/output error\ntwo\n");
}

TEST(full_disk, does_not_count_what_was_taken_back) {
  limited_disk disk(8);
  disk.write("aaa\n");
  disk.leave_room_for(2);
  disk.write("bbb\n");
  disk.make_room();
  disk.write("c\n");
  EXPECT_EQ(disk.place().everything(),
            "aaa\nkeelmond-run: 1 line lost: No space left on device\nc\n");
  disk.write("d\n");
  disk.write("e\n");
  EXPECT_EQ(disk.text(), "d\ne\n");
}

TEST(full_disk, has_the_time_in_front_of_its_report) {
  const no_faults_afterwards restore;
  const log_place place;
  own_lines messages;
  line_stamp stamp;
  stamp.set_to_now();
  rotating_file file(place.path(), place.settings(0), &stamp, messages);
  faults.write = [](int, const void*, std::size_t) -> ssize_t {
    errno = ENOSPC;
    return -1;
  };
  file.write("one\n");
  faults.write = nullptr;
  file.write("two\n");
  EXPECT_EQ(place.now(), std::string(stamp.text()) +
                             "keelmond-run: 1 line lost: No space left on device\ntwo\n");
}

TEST(full_disk, writes_on_after_calls_that_were_interrupted) {
  const no_faults_afterwards restore;
  const log_place place;
  own_lines messages;
  rotating_file file(place.path(), place.settings(0), nullptr, messages);
  int calls = 0;
  faults.write = [&](int fd, const void* text, std::size_t size) -> ssize_t {
    if (++calls % 2 == 1) {
      errno = EINTR;
      return -1;
    }
    return real::write(fd, text, std::min<std::size_t>(size, 3));
  };
  file.write("one two three\n");
  EXPECT_EQ(place.now(), "one two three\n");
}

TEST(file_size_limit, begins_a_new_file_when_it_is_met) {
  in_child([] {
    moved_clock clock;
    ::signal(SIGXFSZ, SIG_IGN);
    const log_place place;
    own_lines messages;
    rotating_file file(place.path(), place.settings(0), nullptr, messages);
    const rlimit limit = {100, RLIM_INFINITY};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    const std::string line = std::string(59, 'x') + "\n";
    file.write(line);
    file.write(line);
    EXPECT_EQ(place.now(), line);
    clock.advance(std::chrono::seconds(2));
    file.write("next\n");
    EXPECT_EQ(place.everything(), line + "keelmond-run: 1 line lost: File too large\nnext\n");
    EXPECT_EQ(place.rotated().size(), 1U);
  });
}
