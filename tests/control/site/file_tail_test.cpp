#include "control/site/file_tail.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "tests/support/scratch_dir.h"

using control::file_tail;

namespace {

/// A file of numbered lines that is followed.
class followed_file : public testing::Test {
 protected:
  followed_file() {
    append(1000);
    tail_.open(true);
  }

  void append(int lines) {
    for (int i = 0; i < lines; ++i)
      text_ += "line " + std::to_string(next_++) + "\n";
    save();
  }
  /// In place, as whoever has the file open sees it.
  void save() const { scratch_.write("log", text_); }
  void cut(std::size_t bytes) {
    text_.erase(0, bytes);
    save();
  }
  std::string read() {
    std::string text;
    tail_.read_on([&](std::string_view piece) { text += piece; });
    return text;
  }

  scratch_dir scratch_;
  std::string text_;
  int next_ = 0;
  file_tail tail_{scratch_.file("log")};
};

}  // namespace

TEST_F(followed_file, shows_nothing_twice_when_blocks_are_cut_off_its_front) {
  append(1);
  EXPECT_EQ(read(), "line 1000\n");
  cut(4096);
  EXPECT_EQ(read(), "");
  append(2);
  EXPECT_EQ(read(), "line 1001\nline 1002\n");
  // All but the last bytes.
  cut((text_.size() - 1) / 4096 * 4096);
  EXPECT_EQ(read(), "");
  append(1);
  EXPECT_EQ(read(), "line 1003\n");
}

TEST_F(followed_file, leaves_nothing_out_of_what_was_appended_before_it_looks) {
  cut(4096);
  append(1000);
  const std::string shown = read();
  EXPECT_TRUE(shown.starts_with("line 1000\n")) << shown.substr(0, 40);
  EXPECT_TRUE(shown.ends_with("line 1999\n"));
}

TEST_F(followed_file, is_read_from_its_beginning_when_it_was_emptied) {
  text_.clear();
  append(1);
  EXPECT_EQ(read(), "line 1000\n");
  // Also when there is as much in it again.
  text_.clear();
  append(2000);
  EXPECT_TRUE(read().starts_with("line 1001\n"));
}
