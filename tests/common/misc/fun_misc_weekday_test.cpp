#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <climits>

#include "common/misc/fun_misc.h"

namespace {

/// Days since the beginning of the Julian period, a Monday, for a date of the Julian calendar.
long julian_day_number(int year, int month, int day) {
  const long shift = (14 - month) / 12;
  const long y = year + 4800 - shift;
  const long m = month + 12 * shift - 3;
  return day + (153 * m + 2) / 5 + 365 * y + y / 4 - 32083;
}

int gregorian_weekday(int year, int month, int day) {
  using namespace std::chrono;
  const sys_days date = std::chrono::year{year} / month / day;
  return static_cast<int>(weekday{date}.iso_encoding()) - 1;
}

int julian_month_length(int year, int month) {
  if (month == 2) return year % 4 == 0 ? 29 : 28;
  return month == 4 || month == 6 || month == 9 || month == 11 ? 30 : 31;
}

TEST(fun_misc_weekday, known_days_have_their_weekday) {
  EXPECT_EQ(Tfun_misc::CaculateWeekDay(2024, 1, 1), 0);
  EXPECT_EQ(Tfun_misc::CaculateWeekDay(1752, 9, 2), 2);
  EXPECT_EQ(Tfun_misc::CaculateWeekDay(1752, 9, 14), 3);
  EXPECT_EQ(Tfun_misc::CaculateWeekDay(2000, 2, 29), 1);
}

TEST(fun_misc_weekday, every_day_of_the_gregorian_calendar_is_right) {
  using namespace std::chrono;
  for (sys_days date = 1752y / 9 / 3; date < sys_days{2801y / 1 / 1}; date += days{1}) {
    const year_month_day d{date};
    const int y = static_cast<int>(d.year());
    const int m = static_cast<int>(static_cast<unsigned>(d.month()));
    const int k = static_cast<int>(static_cast<unsigned>(d.day()));
    ASSERT_EQ(Tfun_misc::CaculateWeekDay(y, m, k),
              static_cast<int>(weekday{date}.iso_encoding()) - 1)
        << y << '-' << m << '-' << k;
  }
}

TEST(fun_misc_weekday, every_day_of_the_julian_calendar_is_right) {
  for (int year = 2; year <= 1752; ++year) {
    for (int month = 1; month <= (year == 1752 ? 9 : 12); ++month) {
      const int last = year == 1752 && month == 9 ? 2 : julian_month_length(year, month);
      for (int day = 1; day <= last; ++day) {
        ASSERT_EQ(Tfun_misc::CaculateWeekDay(year, month, day),
                  julian_day_number(year, month, day) % 7)
            << year << '-' << month << '-' << day;
      }
    }
  }
}

TEST(fun_misc_weekday, the_calendar_changes_on_the_third_of_september_1752) {
  for (const auto& [month, day] : {std::array{1, 1}, {2, 29}, {3, 1}, {8, 31}, {9, 1}, {9, 2}}) {
    EXPECT_EQ(Tfun_misc::CaculateWeekDay(1752, month, day),
              julian_day_number(1752, month, day) % 7);
    EXPECT_NE(Tfun_misc::CaculateWeekDay(1752, month, day), gregorian_weekday(1752, month, day));
  }
  for (int day = 3; day <= 30; ++day) {
    EXPECT_EQ(Tfun_misc::CaculateWeekDay(1752, 9, day), gregorian_weekday(1752, 9, day))
        << "also the days that were dropped";
  }
  EXPECT_EQ(Tfun_misc::CaculateWeekDay(1752, 10, 1), gregorian_weekday(1752, 10, 1));
  EXPECT_EQ(Tfun_misc::CaculateWeekDay(1753, 1, 1), gregorian_weekday(1753, 1, 1))
      << "though it is counted as the 13th month of 1752";
  EXPECT_EQ(Tfun_misc::CaculateWeekDay(1753, 2, 28), gregorian_weekday(1753, 2, 28));
}

TEST(fun_misc_weekday, no_number_is_too_large) {
  for (const int extreme : {INT_MIN, -5000, 0, INT_MAX}) {
    for (const int month : {INT_MIN, 0, 1, 2, 9, INT_MAX}) {
      const int weekday = Tfun_misc::CaculateWeekDay(extreme, month, extreme);
      EXPECT_GT(weekday, -7);
      EXPECT_LT(weekday, 7);
    }
  }
}

}  // namespace
