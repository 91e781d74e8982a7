#include "common/misc/duration.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "common/misc/decimal.h"

using namespace std::chrono_literals;

TEST(duration, is_in_seconds_unless_it_says_otherwise) {
  EXPECT_EQ(parse_duration("0"), 0ms);
  EXPECT_EQ(parse_duration("0.2"), 200ms);
  EXPECT_EQ(parse_duration(".25s"), 250ms);
  EXPECT_EQ(parse_duration("500ms"), 500ms);
  EXPECT_EQ(parse_duration("1.5m"), 90s);
  EXPECT_EQ(parse_duration("3min"), 3min);
  EXPECT_EQ(parse_duration("2h"), 2h);
  EXPECT_EQ(parse_duration("1d"), 24h);
  EXPECT_EQ(parse_duration("0.0009999"), 0ms);
  for (const char* const none : {"", "s", "-1", " 1", "1 s", "1.", "1e3", "0x1", "inf", "10y",
                                 "99999999999999999999", "99999999999d"})
    EXPECT_FALSE(parse_duration(none)) << none;
}

TEST(duration, is_at_most_a_hundred_years_in_each_unit) {
  EXPECT_EQ(parse_duration("36525d"), kLongestDuration);
  EXPECT_EQ(parse_duration("876600h"), kLongestDuration);
  EXPECT_EQ(parse_duration("3155760000"), kLongestDuration);
  EXPECT_EQ(parse_duration("3155760000000ms"), kLongestDuration);
  for (const char* const none : {"36525.001d", "36526d", "876601h", "52596001m", "3155760001",
                                 "3155760000001ms", "1000000000000d"})
    EXPECT_FALSE(parse_duration(none)) << none;
  // So much ahead can still be counted.
  const auto later = std::chrono::steady_clock::now() + 2 * kLongestDuration;
  EXPECT_GT(later, std::chrono::steady_clock::now());
}

TEST(decimal, takes_what_is_a_number_away_and_leaves_the_rest) {
  std::string_view text = "12.5rest";
  EXPECT_EQ(take_thousandths(text), 12500U);
  EXPECT_EQ(text, "rest");
  text = "0077x";
  EXPECT_EQ(take_digits(text), 77U);
  EXPECT_EQ(text, "x");
  text = "18446744073709551615";
  EXPECT_EQ(take_digits(text), std::numeric_limits<std::uint64_t>::max());
  text = "18446744073709551616";
  EXPECT_FALSE(take_digits(text));
}
