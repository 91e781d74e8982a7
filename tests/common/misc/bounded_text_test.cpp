#include "common/misc/bounded_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace std::string_literals;

/// The 8 bytes of a buffer of '#' after copying `text` into the first `size` of them.
std::string copied(std::size_t size, const char* text, bool whole) {
  std::string buffer(8, '#');
  EXPECT_EQ(copy_bounded(buffer.data(), size, text), whole);
  return buffer;
}

TEST(bounded_text, a_text_shorter_than_the_buffer_is_followed_by_zeros) {
  EXPECT_EQ(copied(6, "abc", true), "abc\0\0\0##"s);
}

TEST(bounded_text, a_text_of_one_byte_less_than_the_buffer_just_fits) {
  EXPECT_EQ(copied(4, "abc", true), "abc\0####"s);
}

TEST(bounded_text, a_text_as_long_as_the_buffer_is_cut) {
  EXPECT_EQ(copied(3, "abc", false), "ab\0#####"s);
  EXPECT_EQ(copied(2, "abc", false), "a\0######"s);
  EXPECT_EQ(copied(1, "abc", false), "\0#######"s);
}

TEST(bounded_text, a_buffer_of_one_byte_holds_the_empty_text) {
  EXPECT_EQ(copied(1, "", true), "\0#######"s);
}

TEST(bounded_text, a_null_text_counts_as_empty) {
  EXPECT_EQ(copied(4, nullptr, true), "\0\0\0\0####"s);
}

TEST(bounded_text, nothing_is_written_to_a_buffer_of_no_bytes) {
  EXPECT_EQ(copied(0, "abc", false), "########");
  EXPECT_EQ(copied(0, "", false), "########");
  EXPECT_FALSE(copy_bounded(nullptr, 0, "abc"));
}

TEST(bounded_text, the_size_of_an_array_is_taken_from_its_type) {
  char array[4] = {'#', '#', '#', '#'};
  EXPECT_TRUE(copy_bounded(array, "a"));
  EXPECT_EQ(std::string(array, 4), "a\0\0\0"s);
  EXPECT_FALSE(copy_bounded(array, "abcd"));
  EXPECT_STREQ(array, "abc");
}

}  // namespace
