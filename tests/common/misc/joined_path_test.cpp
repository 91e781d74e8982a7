#include "common/misc/joined_path.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace {

/// What becomes of a buffer of '#'; nothing but that where the path does not fit `size` bytes.
std::string joined(std::size_t size, std::string_view directory, std::string_view name) {
  std::string buffer(32, '#');
  if (!join_path(buffer.data(), size, directory, name)) return buffer;
  return std::string(buffer.c_str());
}

TEST(joined_path, has_one_slash_between_directory_and_name) {
  EXPECT_EQ(joined(32, "/a", "b"), "/a/b");
  EXPECT_EQ(joined(32, "/a/", "b"), "/a/b");
  EXPECT_EQ(joined(32, "/a", "/b"), "/a/b");
  EXPECT_EQ(joined(32, "/a", ""), "/a/");
}

TEST(joined_path, has_two_below_the_root_directory_where_the_name_begins_with_one) {
  EXPECT_EQ(joined(32, "/", "b"), "/b");
  EXPECT_EQ(joined(32, "/", "/b"), "//b");
}

TEST(joined_path, is_the_name_without_a_directory) {
  EXPECT_EQ(joined(32, "", "b"), "b");
}

TEST(joined_path, fits_with_its_terminator_or_leaves_the_buffer_untouched) {
  EXPECT_EQ(joined(5, "/a", "b"), "/a/b");
  EXPECT_EQ(joined(4, "/a", "b"), std::string(32, '#'));
  EXPECT_EQ(joined(0, "", ""), std::string(32, '#'));
}

TEST(joined_path, may_be_built_over_its_name) {
  char buffer[32] = "name";
  EXPECT_TRUE(join_path(buffer, sizeof buffer, "/directory", std::string_view(buffer, 4)));
  EXPECT_STREQ(buffer, "/directory/name");
}

}  // namespace
