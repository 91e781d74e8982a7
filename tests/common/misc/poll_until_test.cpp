#include "common/misc/poll_until.h"

#include <gtest/gtest.h>

using std::chrono::hours;
using std::chrono::milliseconds;

TEST(poll_until, looks_until_the_condition_holds) {
  int looks = 0;
  EXPECT_TRUE(poll_until(hours(1), milliseconds(0), [&] { return ++looks == 3; }));
  EXPECT_EQ(looks, 3);
}

TEST(poll_until, pauses_for_nothing_that_holds) {
  EXPECT_TRUE(poll_until(milliseconds(0), hours(1), [] { return true; }));
}

TEST(poll_until, gives_up_when_the_limit_is_over) {
  int looks = 0;
  const auto never = [&] { return ++looks < 0; };
  EXPECT_FALSE(poll_until(milliseconds(0), hours(1), never));
  EXPECT_EQ(looks, 1);
  EXPECT_FALSE(poll_until(milliseconds(3), milliseconds(1), never));
  EXPECT_GT(looks, 2);
}
