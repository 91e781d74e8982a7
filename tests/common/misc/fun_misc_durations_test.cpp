#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "common/misc/fun_misc.h"

namespace {

struct duration_texts {
  char whole[32] = "-";
  char hours[32] = "-";
  char minutes[32] = "-";
  char secs[32] = "-";
};

std::string view_times(unsigned long seconds) {
  duration_texts t;
  Tfun_misc::calc_time_view_times(seconds, t.whole, t.hours, t.minutes, t.secs);
  std::string all = t.whole;
  for (const char* part : {t.hours, t.minutes, t.secs})
    all.append("|").append(part);
  return all;
}

TEST(fun_misc_view_times, no_time_is_not_written) {
  EXPECT_EQ(view_times(0), "-|-|-|-");
}

TEST(fun_misc_view_times, less_than_a_minute_has_no_parts) {
  EXPECT_EQ(view_times(1), "00:00:01|-|-|-");
  EXPECT_EQ(view_times(59), "00:00:59|-|-|-");
}

TEST(fun_misc_view_times, less_than_an_hour_has_minutes_and_seconds) {
  EXPECT_EQ(view_times(60), "00:01:00|-|1|-");
  EXPECT_EQ(view_times(61), "00:01:01|-|1|1");
  EXPECT_EQ(view_times(3599), "00:59:59|-|59|59");
}

TEST(fun_misc_view_times, a_full_hour_has_only_hours) {
  EXPECT_EQ(view_times(3600), "01:00:00|1|-|-");
}

TEST(fun_misc_view_times, the_first_minute_of_an_hour_shows_its_seconds_only_as_a_part) {
  EXPECT_EQ(view_times(3601), "01:00:00|1|-|1");
  EXPECT_EQ(view_times(7259), "02:00:00|2|-|59");
}

TEST(fun_misc_view_times, later_in_an_hour_all_is_shown) {
  EXPECT_EQ(view_times(3660), "01:01:00|1|1|-");
  EXPECT_EQ(view_times(3661), "01:01:01|1|1|1");
  EXPECT_EQ(view_times(359'999), "99:59:59|99|59|59");
  EXPECT_EQ(view_times(360'000), "100:00:00|100|-|-");
  EXPECT_EQ(view_times(ULONG_MAX), "5124095576030431:00:00|5124095576030431|-|15");
}

TEST(fun_misc_view_times, the_seconds_buffer_switches_all_parts) {
  duration_texts t;
  Tfun_misc::calc_time_view_times(3661, t.whole, t.hours, t.minutes, nullptr);
  EXPECT_STREQ(t.whole, "01:01:01");
  EXPECT_STREQ(t.hours, "-");
  EXPECT_STREQ(t.minutes, "-");
}

TEST(fun_misc_view_times, a_null_buffer_is_left_out) {
  duration_texts t;
  Tfun_misc::calc_time_view_times(3661, nullptr, nullptr, nullptr, t.secs);
  EXPECT_STREQ(t.secs, "1");
}

std::string duration(long seconds) {
  char out[64];
  const long length = Tfun_misc::SecondToTimeStr(seconds, "h", "m", "s", out, nullptr);
  EXPECT_EQ(length, static_cast<long>(std::strlen(out)));
  return out;
}

TEST(fun_misc_duration, up_to_a_minute_is_seconds) {
  EXPECT_EQ(duration(0), "0 s");
  EXPECT_EQ(duration(60), "60 s");
  EXPECT_EQ(duration(-5), "-5 s");
}

TEST(fun_misc_duration, up_to_an_hour_is_minutes_and_seconds) {
  EXPECT_EQ(duration(61), "1 m 1 s");
  EXPECT_EQ(duration(120), "2 m 0 s");
  EXPECT_EQ(duration(3600), "60 m 0 s");
}

TEST(fun_misc_duration, beyond_an_hour_a_rest_of_one_minute_is_sixty_seconds) {
  EXPECT_EQ(duration(3601), "1 h 0 m 1 s");
  EXPECT_EQ(duration(3660), "1 h 0 m 60 s");
  EXPECT_EQ(duration(3661), "1 h 1 m 1 s");
  EXPECT_EQ(duration(7200), "2 h 0 m 0 s");
  EXPECT_EQ(duration(7199), "1 h 59 m 59 s");
  EXPECT_EQ(duration(LONG_MAX), "2562047788015215 h 30 m 7 s");
}

TEST(fun_misc_duration, the_words_are_those_of_the_caller) {
  char out[64];
  EXPECT_EQ(Tfun_misc::SecondToTimeStr(3725, "hours,", "minutes,", "seconds", out, nullptr), 29);
  EXPECT_STREQ(out, "1 hours, 2 minutes, 5 seconds");
  EXPECT_EQ(Tfun_misc::SecondToTimeStr(3725, nullptr, nullptr, nullptr, out, nullptr), 8);
  EXPECT_STREQ(out, "1  2  5 ");
}

TEST(fun_misc_duration, the_text_goes_to_both_buffers) {
  char out1[64] = "-";
  char out2[64] = "-";
  EXPECT_EQ(Tfun_misc::SecondToTimeStr(61, "h", "m", "s", out1, out2), 7);
  EXPECT_STREQ(out1, "1 m 1 s");
  EXPECT_STREQ(out2, "1 m 1 s");
  EXPECT_EQ(Tfun_misc::SecondToTimeStr(9, "h", "m", "s", nullptr, out2), 3);
  EXPECT_STREQ(out2, "9 s");
  EXPECT_EQ(Tfun_misc::SecondToTimeStr(9, "h", "m", "s", nullptr, nullptr), 0);
}

}  // namespace
