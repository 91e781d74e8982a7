#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/misc/fun_misc.h"
#include "tests/common/misc/fake_clock.h"
#include "tests/common/misc/process_state.h"

namespace {

/// 2023-11-14 22:13:20 in UTC, a Tuesday.
constexpr std::time_t kNow = 1'700'000'000;
constexpr std::time_t kDay = 86'400;

constexpr const char* kUtc = "UTC0";
constexpr const char* kWest = "EST5";
constexpr const char* kEast = "<+0530>-5:30";
constexpr const char* kSummer = "CET-1CEST,M3.5.0,M10.5.0/3";

/// Makes a zone the local one for as long as the object lives.
class local_zone final {
 public:
  explicit local_zone(const char* zone) : variable_(std::in_place, "TZ", zone) { ::tzset(); }
  local_zone(const local_zone&) = delete;
  local_zone& operator=(const local_zone&) = delete;
  ~local_zone() {
    variable_.reset();
    ::tzset();
  }

 private:
  std::optional<changed_variable> variable_;
};

// Splitting

std::array<int, 6> split(const char* text) {
  std::array<int, 6> f{-1, -1, -1, -1, -1, -1};
  Tfun_misc::split_datetime(text, f[0], f[1], f[2], f[3], f[4], f[5]);
  return f;
}

using fields = std::array<int, 6>;

TEST(fun_misc_split, a_text_is_split_into_six_numbers) {
  EXPECT_EQ(split("2024-01-05 02:30:10"), (fields{2024, 1, 5, 2, 30, 10}));
  EXPECT_EQ(split("2024-1-5 2:3:4"), (fields{2024, 1, 5, 2, 3, 4}));
  EXPECT_EQ(split("999999999-000000012-000000031 000000008:000000009:000000059"),
            (fields{999999999, 12, 31, 8, 9, 59}));
}

TEST(fun_misc_split, what_follows_the_seconds_is_ignored) {
  EXPECT_EQ(split("2024-01-05 02:30:10\n"), (fields{2024, 1, 5, 2, 30, 10}));
  EXPECT_EQ(split("2024-01-05 02:30:10.25 and a long text - with: separators"),
            (fields{2024, 1, 5, 2, 30, 10}));
}

TEST(fun_misc_split, a_number_ends_at_what_is_no_digit) {
  EXPECT_EQ(split("2024y-01m-05d 02h:30m:10s"), (fields{2024, 1, 5, 2, 30, 10}));
  EXPECT_EQ(split("-- ::"), (fields{0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(split("y-m-d h:m:s"), (fields{0, 0, 0, 0, 0, 0}));
}

TEST(fun_misc_split, each_separator_is_looked_for_behind_the_one_before) {
  EXPECT_EQ(split("1:2 3-4-5 6:7:8"), (fields{1, 4, 5, 6, 7, 8}));
}

TEST(fun_misc_split, fields_behind_a_missing_separator_are_zero) {
  EXPECT_EQ(split(nullptr), (fields{}));
  EXPECT_EQ(split(""), (fields{}));
  EXPECT_EQ(split("2024"), (fields{2024, 0, 0, 0, 0, 0}));
  EXPECT_EQ(split("2024-01"), (fields{2024, 1, 0, 0, 0, 0}));
  EXPECT_EQ(split("2024-01-05T02:30:10"), (fields{2024, 1, 5, 0, 0, 0}));
  EXPECT_EQ(split("2024-01-05 02"), (fields{2024, 1, 5, 2, 0, 0}));
  EXPECT_EQ(split("2024-01-05 02:30"), (fields{2024, 1, 5, 2, 30, 0}));
}

TEST(fun_misc_split, the_first_nine_characters_of_a_field_count) {
  EXPECT_EQ(split("1234567890123-01-05 02:30:999999999999"),
            (fields{123456789, 1, 5, 2, 30, 999999999}));
  const std::string endless = std::string(100'000, '1') + "-2-3 4:5:6";
  EXPECT_EQ(split(endless.c_str()), (fields{111111111, 2, 3, 4, 5, 6}));
}

// Comparing

TEST(fun_misc_show_time, a_time_stamp_is_due_after_the_threshold) {
  const char* const a = "2024-01-05 10:00:10";
  const char* const b = "2024-01-05 10:05:09";
  EXPECT_EQ(Tfun_misc::CheckIfNeedToShowTime(a, b, 300), 0);
  EXPECT_EQ(Tfun_misc::CheckIfNeedToShowTime(a, b, 299), 1);
  EXPECT_EQ(Tfun_misc::CheckIfNeedToShowTime(a, b, 298), 1);
  EXPECT_EQ(Tfun_misc::CheckIfNeedToShowTime(a, a, 0), 1);
  EXPECT_EQ(Tfun_misc::CheckIfNeedToShowTime(a, a, 1), 0);
}

TEST(fun_misc_show_time, an_earlier_time_is_not_due_in_the_same_hour) {
  const char* const a = "2024-01-05 10:00:10";
  const char* const b = "2024-01-05 10:05:09";
  EXPECT_EQ(Tfun_misc::CheckIfNeedToShowTime(b, a, 1), 0);
  EXPECT_EQ(Tfun_misc::CheckIfNeedToShowTime(b, a, -299), 1);
  EXPECT_EQ(Tfun_misc::CheckIfNeedToShowTime(b, a, -298), 0);
}

TEST(fun_misc_show_time, another_hour_day_month_or_year_is_always_due) {
  const char* const a = "2024-01-05 10:59:59";
  for (const char* b : {"2024-01-05 11:00:00", "2024-01-05 09:59:59", "2024-01-06 10:59:59",
                        "2024-02-05 10:59:59", "2025-01-05 10:59:59"}) {
    EXPECT_EQ(Tfun_misc::CheckIfNeedToShowTime(a, b, 1000), 1) << b;
  }
}

TEST(fun_misc_show_time, no_number_is_too_large) {
  EXPECT_EQ(Tfun_misc::CheckIfNeedToShowTime("0-0-0 0:0:0", "0-0-0 0:999999999:999999999", INT_MAX),
            1);
  EXPECT_EQ(Tfun_misc::CheckIfNeedToShowTime(nullptr, nullptr, 1), 0);
}

std::string difference(const char* first, const char* second) {
  char out[64] = "untouched";
  Tfun_misc::calc_date_time_for_subtract(first, second, out);
  return out;
}

TEST(fun_misc_subtract, the_hours_of_a_text_with_minutes_are_dropped) {
  EXPECT_EQ(difference("2024-01-05 02:30:10", "2024-01-03 01:00:05"), "2 0:0:-1795");
  EXPECT_EQ(difference("2024-01-05 09:30:10", "2024-01-05 01:10:05"), "0:20:5");
}

TEST(fun_misc_subtract, full_hours_count) {
  EXPECT_EQ(difference("2024-01-05 09:00:10", "2024-01-05 07:00:05"), "2:0:5");
  EXPECT_EQ(difference("2024-01-05 09:00:00", "2024-01-05 07:10:00"), "8:50:0");
}

TEST(fun_misc_subtract, exactly_an_hour_and_exactly_a_minute_are_not_carried) {
  EXPECT_EQ(difference("2024-01-05 01:00:00", "2024-01-05 00:00:00"), "0:60:0");
  EXPECT_EQ(difference("2024-01-05 01:00:01", "2024-01-05 00:00:00"), "1:0:1");
  EXPECT_EQ(difference("2024-01-05 00:01:00", "2024-01-05 00:00:00"), "0:0:60");
  EXPECT_EQ(difference("2024-01-05 00:01:01", "2024-01-05 00:00:00"), "0:1:1");
  EXPECT_EQ(difference("2024-01-05 02:00:00", "2024-01-05 00:00:00"), "2:0:0");
  EXPECT_EQ(difference("2024-01-05 02:00:00", "2024-01-05 00:59:00"), "1:0:60");
}

TEST(fun_misc_subtract, only_a_later_day_of_the_month_is_shown) {
  EXPECT_EQ(difference("2024-01-31 00:00:00", "2023-05-01 00:00:00"), "30 0:0:0");
  EXPECT_EQ(difference("2024-02-01 00:00:00", "2024-01-31 00:00:00"), "0:0:0");
  EXPECT_EQ(difference("2024-01-05 00:00:00", "2024-01-05 00:00:00"), "0:0:0");
}

TEST(fun_misc_subtract, a_negative_difference_stays_in_seconds) {
  EXPECT_EQ(difference("2024-01-05 00:00:00", "2024-01-05 09:00:00"), "0:0:-32400");
}

TEST(fun_misc_subtract, fields_below_zero_count_as_none) {
  EXPECT_EQ(difference("2024-01-05 -5:-6:-7", "2024-01-05 00:00:00"), "0:0:0");
}

TEST(fun_misc_subtract, inputs_outside_the_format_are_harmless) {
  EXPECT_EQ(difference(nullptr, nullptr), "0:0:0");
  EXPECT_EQ(difference("0-0-999999999 999999999:0:999999999", nullptr),
            "999999999 1000277776:46:39");
  Tfun_misc::calc_date_time_for_subtract("2024-01-05 00:00:00", "2024-01-05 00:00:00", nullptr);
}

// Clocks

TEST(fun_misc_clock, ticks_are_those_of_the_wall_clock) {
  const fake_clock clock{kNow, 987'654'321};
  EXPECT_EQ(Tfun_misc::GetTickCount(), 1'700'000'000'987U);
  EXPECT_EQ(Tfun_misc::GetTickSecond(), 1'700'000'000U);
}

TEST(fun_misc_clock, an_unreadable_clock_gives_no_ticks) {
  fake_clock clock{kNow};
  clock.break_clock();
  EXPECT_EQ(Tfun_misc::GetTickCount(), 0U);
  EXPECT_EQ(Tfun_misc::GetTickSecond(), 0U);
}

TEST(fun_misc_clock, ticks_follow_the_real_clock) {
  using namespace std::chrono;
  const auto before = floor<milliseconds>(system_clock::now()).time_since_epoch().count();
  const std::uint64_t ticks = Tfun_misc::GetTickCount();
  const std::uint64_t seconds = Tfun_misc::GetTickSecond();
  const auto after = floor<milliseconds>(system_clock::now()).time_since_epoch().count();
  EXPECT_GE(ticks, static_cast<std::uint64_t>(before));
  EXPECT_LE(ticks, static_cast<std::uint64_t>(after));
  EXPECT_GE(seconds, static_cast<std::uint64_t>(before) / 1000);
  EXPECT_LE(seconds, static_cast<std::uint64_t>(after) / 1000);
}

std::string utc_time() {
  char out[32];
  std::memset(out, '#', sizeof out);
  Tfun_misc::get_utc_time(out);
  return out;
}

std::string local_time_text() {
  char out[32];
  std::memset(out, '#', sizeof out);
  Tfun_misc::get_local_time(out);
  EXPECT_EQ(out[std::strlen(out) + 1], '#');
  return out;
}

TEST(fun_misc_utc_time, the_time_in_utc_ends_with_a_newline) {
  const local_zone zone{kUtc};
  fake_clock clock{kNow};
  EXPECT_EQ(utc_time(), "2023-11-14 22:13:20\n");
  clock.set(0);
  EXPECT_EQ(utc_time(), "1970-01-01 00:00:00\n");
}

TEST(fun_misc_utc_time, the_local_offset_is_taken_from_the_time) {
  const fake_clock clock{kNow};
  {
    const local_zone zone{kWest};
    EXPECT_EQ(utc_time(), "2023-11-15 03:13:20\n");
  }
  {
    const local_zone zone{kEast};
    EXPECT_EQ(utc_time(), "2023-11-14 16:43:20\n");
  }
}

TEST(fun_misc_utc_time, the_offset_is_the_one_of_the_season) {
  const local_zone zone{kSummer};
  fake_clock clock{kNow};
  EXPECT_EQ(utc_time(), "2023-11-14 21:13:20\n");
  clock.set(kNow - 120 * kDay);
  EXPECT_EQ(utc_time(), "2023-07-17 20:13:20\n");
}

TEST(fun_misc_utc_time, no_more_than_the_text_is_written) {
  const local_zone zone{kUtc};
  fake_clock clock{kNow};
  char out[32];
  std::memset(out, '#', sizeof out);
  Tfun_misc::get_utc_time(out);
  EXPECT_EQ(std::strlen(out), 20U);
  EXPECT_EQ(out[21], '#');
  Tfun_misc::get_utc_time(nullptr);
}

TEST(fun_misc_utc_time, a_time_without_a_year_that_can_be_written_is_harmless) {
  const local_zone zone{kUtc};
  fake_clock clock{INT64_MAX};
  EXPECT_LT(utc_time().size(), 32U);
  clock.set(INT64_MIN);
  EXPECT_LT(utc_time().size(), 32U);
  EXPECT_LT(local_time_text().size(), 32U);
}

TEST(fun_misc_local_time, the_time_is_that_of_the_zone) {
  fake_clock clock{kNow};
  for (const auto& [name, text] : {std::array{kUtc, "2023-11-14 22:13:20"},
                                   {kWest, "2023-11-14 17:13:20"},
                                   {kEast, "2023-11-15 03:43:20"},
                                   {kSummer, "2023-11-14 23:13:20"}}) {
    const local_zone zone{name};
    EXPECT_EQ(local_time_text(), text) << name;
  }
  clock.set(kNow - 120 * kDay);
  const local_zone zone{kSummer};
  EXPECT_EQ(local_time_text(), "2023-07-18 00:13:20");
}

TEST(fun_misc_local_time, a_changed_zone_is_noticed) {
  const local_zone zone{kUtc};
  const fake_clock clock{kNow};
  EXPECT_EQ(local_time_text(), "2023-11-14 22:13:20");
  ::setenv("TZ", kWest, 1);
  EXPECT_EQ(local_time_text(), "2023-11-14 17:13:20");
  Tfun_misc::get_local_time(nullptr);
}

TEST(fun_misc_local_time, a_year_of_five_digits_makes_the_texts_longer) {
  const local_zone zone{kUtc};
  const fake_clock clock{253'402'300'800};
  EXPECT_EQ(local_time_text(), "10000-01-01 00:00:00");
  EXPECT_EQ(utc_time(), "10000-01-01 00:00:00\n");
}

TEST(fun_misc_small_time, only_a_text_of_today_takes_the_short_form) {
  const local_zone zone{kUtc};
  const fake_clock clock{kNow};
  EXPECT_EQ(Tfun_misc::checkup_use_small_time("2023-11-14 00:00:00"), 1);
  EXPECT_EQ(Tfun_misc::checkup_use_small_time("2023-11-13 22:13:20"), 0);
  EXPECT_EQ(Tfun_misc::checkup_use_small_time("2022-11-14 22:13:20"), 0);
}

TEST(fun_misc_small_time, the_date_is_compared_as_a_text) {
  const local_zone zone{kUtc};
  const fake_clock clock{kNow - 10 * kDay};
  ASSERT_EQ(utc_time(), "2023-11-04 22:13:20\n");
  EXPECT_EQ(Tfun_misc::checkup_use_small_time("2023-11-04 00:00:00"), 1);
  EXPECT_EQ(Tfun_misc::checkup_use_small_time("2023-11-4 00:00:00"), 0);
  EXPECT_EQ(Tfun_misc::checkup_use_small_time("2023-11 any day of it"), 1);
  EXPECT_EQ(Tfun_misc::checkup_use_small_time(" 00:00:00"), 1) << "every text begins with nothing";
}

TEST(fun_misc_small_time, today_is_the_day_of_the_utc_time_text) {
  const local_zone zone{kWest};
  const fake_clock clock{kNow};
  EXPECT_EQ(Tfun_misc::checkup_use_small_time("2023-11-14 00:00:00"), 0);
  EXPECT_EQ(Tfun_misc::checkup_use_small_time("2023-11-15 00:00:00"), 1);
}

TEST(fun_misc_small_time, a_text_without_a_blank_has_no_date) {
  const local_zone zone{kUtc};
  const fake_clock clock{kNow};
  EXPECT_EQ(Tfun_misc::checkup_use_small_time("2023-11-14"), 0);
  EXPECT_EQ(Tfun_misc::checkup_use_small_time(""), 0);
  EXPECT_EQ(Tfun_misc::checkup_use_small_time(nullptr), 0);
  EXPECT_EQ(Tfun_misc::checkup_use_small_time((std::string(1000, '2') + " ").c_str()), 0);
}

// Short texts

struct human {
  int code;
  std::string text;
  bool operator==(const human&) const = default;
};

/// Printed when an expectation fails.
void PrintTo(const human& value, std::ostream* out) {
  *out << value.code << " \"" << value.text << '"';
}

/// The result for a buffer that holds "then " before the call.
human shown(const char* datetime) {
  char out[69] = "then ";
  const int code = Tfun_misc::ConvertTimeToHuman(datetime, out);
  return {code, out};
}

class fun_misc_human : public testing::Test {
 protected:
  local_zone zone_{kUtc};
  fake_clock clock_{kNow};
};

TEST_F(fun_misc_human, another_year_is_written_in_full) {
  EXPECT_EQ(shown("2022-11-14 08:09:10"), (human{100, "2022-11-14 08:09"}));
  EXPECT_EQ(shown("2024-1-2 3:4:5"), (human{100, "2024-01-02 03:04"}));
}

TEST_F(fun_misc_human, another_month_is_written_without_the_year) {
  EXPECT_EQ(shown("2023-10-14 08:09:10"), (human{100, "10-14 08:09"}));
  EXPECT_EQ(shown("2023-12-14 08:09:10"), (human{100, "12-14 08:09"}));
}

TEST_F(fun_misc_human, today_is_written_as_its_time) {
  EXPECT_EQ(shown("2023-11-14 08:09:10"), (human{100, "08:09"}));
}

TEST_F(fun_misc_human, more_than_six_days_ago_is_written_as_a_date) {
  EXPECT_EQ(shown("2023-11-07 08:09:10"), (human{100, "11-07 08:09"}));
  EXPECT_EQ(shown("2023-11-01 08:09:10"), (human{100, "11-01 08:09"}));
}

TEST_F(fun_misc_human, the_last_six_days_are_appended_and_have_a_label) {
  EXPECT_EQ(shown("2023-11-13 08:09:10"), (human{10, "then 08:09"}));
  EXPECT_EQ(shown("2023-11-12 08:09:10"), (human{11, "then 08:09"}));
  EXPECT_EQ(shown("2023-11-11 08:09:10"), (human{12, "then 08:09"}));
  EXPECT_EQ(shown("2023-11-10 08:09:10"), (human{13, "then 08:09"}));
  EXPECT_EQ(shown("2023-11-09 08:09:10"), (human{3, "then 08:09"})) << "a Thursday";
  EXPECT_EQ(shown("2023-11-08 08:09:10"), (human{2, "then 08:09"})) << "a Wednesday";
}

TEST_F(fun_misc_human, a_day_of_this_month_still_to_come_is_appended_without_a_label) {
  EXPECT_EQ(shown("2023-11-15 08:09:10"), (human{100, "then 08:09"}));
  EXPECT_EQ(shown("2023-11-30 08:09:10"), (human{100, "then 08:09"}));
}

TEST_F(fun_misc_human, today_is_the_day_of_the_utc_time_text) {
  const local_zone west{kWest};
  EXPECT_EQ(shown("2023-11-14 08:09:10"), (human{10, "then 08:09"}));
  EXPECT_EQ(shown("2023-11-15 08:09:10"), (human{100, "08:09"}));
}

TEST_F(fun_misc_human, inputs_outside_the_format_are_harmless) {
  EXPECT_EQ(shown(nullptr), (human{100, "0-00-00 00:00"}));
  EXPECT_EQ(shown("999999999-999999999-999999999 999999999:999999999:999999999"),
            (human{100, "999999999-999999999-999999999 999999999:999999999"}));
  EXPECT_EQ(Tfun_misc::ConvertTimeToHuman("2023-11-13 08:09:10", nullptr), 100);
}

// Threads

TEST(fun_misc_datetime_threads, texts_made_at_once_do_not_mix) {
  const local_zone zone{kEast};
  const fake_clock clock{kNow};
  std::vector<std::thread> threads;
  std::vector<int> wrong(4);
  for (int& count : wrong) {
    threads.emplace_back([&count] {
      for (int round = 0; round < 300; ++round) {
        if (utc_time() != "2023-11-14 16:43:20\n") ++count;
        if (local_time_text() != "2023-11-15 03:43:20") ++count;
        if (Tfun_misc::checkup_use_small_time("2023-11-14 00:00:00") != 1) ++count;
        if (shown("2023-11-13 08:09:10") != human{10, "then 08:09"}) ++count;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(wrong, std::vector<int>(4));
}

}  // namespace
