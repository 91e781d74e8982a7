#include "process/file_version.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>

using std::chrono::milliseconds;

namespace {

/// What is left of `time` for a file that was written to so many seconds from now.
std::chrono::nanoseconds left_of(milliseconds time, time_t seconds) {
  file_version version{};
  ::clock_gettime(CLOCK_REALTIME, &version.modified);
  version.modified.tv_sec += seconds;
  return version.left_of(time);
}

}  // namespace

TEST(file_version, tells_what_is_left_of_the_time_since_the_last_write) {
  EXPECT_LE(left_of(milliseconds(900), 0), milliseconds(900));
  EXPECT_EQ(left_of(milliseconds(900), -1).count(), 0);
  EXPECT_EQ(left_of(milliseconds(900), -2).count(), 0);
  EXPECT_EQ(left_of(milliseconds(900), 60).count(), 0) << "a time to come says nothing";
}

TEST(file_version, takes_any_time_that_a_file_may_have) {
  file_version version{};
  for (const time_t odd :
       {std::numeric_limits<time_t>::min(), std::numeric_limits<time_t>::max()}) {
    version.modified.tv_sec = odd;
    EXPECT_EQ(version.left_of(milliseconds(20)).count(), 0);
  }
}
