#include "runner/log/lost_lines.h"

#include <gtest/gtest.h>

#include <cerrno>

using runner::lost_lines;

TEST(lost_lines, counts_lines_however_they_are_cut) {
  lost_lines lost;
  EXPECT_FALSE(lost.any());
  lost.add("one\ntwo\nthr", ENOSPC);
  EXPECT_TRUE(lost.any());
  EXPECT_TRUE(lost.is_inside());
  EXPECT_EQ(lost.skip("e"), "");
  EXPECT_EQ(lost.skip("e\nfour\n"), "four\n");
  EXPECT_EQ(lost.report(), "3 lines lost: No space left on device");
  EXPECT_EQ(lost.skip("four\n"), "four\n");
}

TEST(lost_lines, knows_of_a_line_that_has_not_ended_yet) {
  lost_lines lost;
  lost.add("beginning", EIO);
  EXPECT_TRUE(lost.any());
  EXPECT_EQ(lost.skip("end\n"), "");
  EXPECT_FALSE(lost.is_inside());
  EXPECT_EQ(lost.report(), "1 line lost: Input/output error");
}

TEST(lost_lines, begins_anew_after_it_was_told) {
  lost_lines lost;
  lost.add("a\nb", EIO);
  lost.clear();
  EXPECT_FALSE(lost.any());
  EXPECT_EQ(lost.skip("c\n"), "c\n");
}
