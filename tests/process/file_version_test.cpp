#include "process/file_version.h"

#include <gtest/gtest.h>

#include <ctime>
#include <limits>

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

}  // namespace
