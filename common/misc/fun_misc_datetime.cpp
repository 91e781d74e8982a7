#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "common/misc/fun_misc.h"

namespace {

constexpr std::size_t kMaxTimeText = 32;
constexpr std::size_t kMaxShortText = 64;
constexpr std::size_t kMaxPart = 32;
constexpr int kNoLabel = 100;

struct datetime_fields {
  int year, month, day, hour, minute, second;
};

/// Takes the field before the next `separator` off the front of `rest`; without one, all of it.
int take_field(std::string_view& rest, char separator) noexcept {
  const std::size_t end = rest.find(separator);
  // As long as a field may be, so that its number always fits an int.
  char field[10] = {};
  rest.substr(0, end).copy(field, sizeof field - 1);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  return static_cast<int>(std::strtol(field, nullptr, 10));
}

datetime_fields split(const char* text) noexcept {
  std::string_view rest = text == nullptr ? "" : text;
  datetime_fields fields{};
  fields.year = take_field(rest, '-');
  fields.month = take_field(rest, '-');
  fields.day = take_field(rest, ' ');
  fields.hour = take_field(rest, ':');
  fields.minute = take_field(rest, ':');
  fields.second = take_field(rest, '\0');
  return fields;
}

/// Seconds as `calc_date_time_for_subtract` counts them.
std::int64_t counted_seconds(const datetime_fields& time) noexcept {
  std::int64_t count = time.hour > 0 ? time.hour * std::int64_t{3600} : 0;
  // Part of the interface: minutes take the place of the hours, so the hours of a text that has
  // minutes do not count.
  if (time.minute > 0) count = time.minute * std::int64_t{60};
  if (time.second > 0) count += time.second;
  return count;
}

/// Writes a time and no more than its text; an empty one when that is longer than any time is.
void write_time(const tm& time, const char* format, char* out) noexcept {
  char text[kMaxTimeText] = {};
  if (std::strftime(text, sizeof text, format, &time) == 0) text[0] = '\0';
  std::memcpy(out, text, std::strlen(text) + 1);
}

/// Whether the date, in a year that begins with March, is before the change of calendars.
bool is_julian(int day, std::int64_t month, std::int64_t year) noexcept {
  if (year != 1752) return year < 1752;
  return month < 9 || (month == 9 && day < 3);
}

/// Hour and minute behind the text that `out` holds already.
void append_hour_and_minute(const datetime_fields& time, char* out) noexcept {
  std::snprintf(out + std::strlen(out), kMaxShortText, "%02d:%02d", time.hour, time.minute);
}

/// What `ConvertTimeToHuman` returns for a date of this month, some days before today.
int label_of(const datetime_fields& date, int days_ago) noexcept {
  if (days_ago < 1) return kNoLabel;
  if (days_ago <= 4) return 9 + days_ago;
  return Tfun_misc::CaculateWeekDay(date.year, date.month, date.day);
}

/// Writes one part of a duration; one that is 0 leaves its buffer alone.
void write_part(char* out, unsigned long part) noexcept {
  if (out != nullptr && part > 0) std::snprintf(out, kMaxPart, "%lu", part);
}

}  // namespace

int Tfun_misc::CaculateWeekDay(int year, int month, int day) noexcept {
  // Zeller's congruence: January and February belong to the year before, as its months 13 and 14.
  const bool in_last_year = month == 1 || month == 2;
  const std::int64_t m = in_last_year ? month + 12 : month;
  const std::int64_t y = in_last_year ? year - std::int64_t{1} : year;
  const std::int64_t days = day + 2 * m + 3 * (m + 1) / 5 + y + y / 4;
  return static_cast<int>((is_julian(day, m, y) ? days + 5 : days - y / 100 + y / 400) % 7);
}

void Tfun_misc::split_datetime(const char* text, int& year, int& month, int& day, int& hour,
                               int& minute, int& second) noexcept {
  const datetime_fields fields = split(text);
  year = fields.year;
  month = fields.month;
  day = fields.day;
  hour = fields.hour;
  minute = fields.minute;
  second = fields.second;
}

int Tfun_misc::CheckIfNeedToShowTime(const char* earlier, const char* later,
                                     int threshold) noexcept {
  const datetime_fields a = split(earlier);
  const datetime_fields b = split(later);
  if (a.year != b.year || a.month != b.month || a.day != b.day || a.hour != b.hour) return 1;
  const std::int64_t minutes = std::int64_t{b.minute} - a.minute;
  const std::int64_t seconds = std::int64_t{b.second} - a.second;
  return minutes * 60 + seconds >= threshold ? 1 : 0;
}

void Tfun_misc::calc_date_time_for_subtract(const char* first, const char* second,
                                            char* out) noexcept {
  if (out == nullptr) return;
  const datetime_fields a = split(first);
  const datetime_fields b = split(second);
  const long days = a.day - b.day;
  long difference = counted_seconds(a) - counted_seconds(b);
  long hours = 0;
  long minutes = 0;
  // Strictly greater, as in `SecondToTimeStr`, so that both show the same duration alike: what is
  // exactly an hour as 60 minutes, what is exactly a minute as 60 seconds.
  if (difference > 3600) {
    hours = difference / 3600;
    difference %= 3600;
  }
  if (difference > 60) {
    minutes = difference / 60;
    difference %= 60;
  }
  if (days > 0) {
    std::snprintf(out, kMaxShortText, "%ld %ld:%ld:%ld", days, hours, minutes, difference);
  } else {
    std::snprintf(out, kMaxShortText, "%ld:%ld:%ld", hours, minutes, difference);
  }
}

std::uint64_t Tfun_misc::GetTickCount() noexcept {
  timeval now{};
  if (::gettimeofday(&now, nullptr) != 0) return 0;
  return static_cast<std::uint64_t>(now.tv_sec * 1000 + now.tv_usec / 1000);
}

std::uint64_t Tfun_misc::GetTickSecond() noexcept {
  timeval now{};
  if (::gettimeofday(&now, nullptr) != 0) return 0;
  return static_cast<std::uint64_t>(now.tv_sec);
}

void Tfun_misc::get_utc_time(char* out) noexcept {
  if (out == nullptr) return;
  const std::time_t now = std::time(nullptr);
  tm fields{};
  ::gmtime_r(&now, &fields);
  // The fields of UTC are read as local time, which is part of the interface: the text is off by
  // the zone's offset, and so are all that it is compared with.
  fields.tm_isdst = -1;
  const std::time_t shifted = std::mktime(&fields);
  tm shown{};
  ::gmtime_r(&shifted, &shown);
  write_time(shown, "%F %T\n", out);
}

int Tfun_misc::checkup_use_small_time(const char* datetime) noexcept {
  const std::string_view text = datetime == nullptr ? "" : datetime;
  const std::size_t blank = text.find(' ');
  if (blank == std::string_view::npos) return 0;
  char now[kMaxTimeText];
  get_utc_time(now);
  return std::string_view(now).starts_with(text.substr(0, blank)) ? 1 : 0;
}

int Tfun_misc::ConvertTimeToHuman(const char* datetime, char* out) noexcept {
  if (out == nullptr) return kNoLabel;
  char now[kMaxTimeText];
  get_utc_time(now);
  const datetime_fields today = split(now);
  const datetime_fields date = split(datetime);
  if (date.year != today.year) {
    std::snprintf(out, kMaxShortText, "%d-%02d-%02d %02d:%02d", date.year, date.month, date.day,
                  date.hour, date.minute);
    return kNoLabel;
  }
  const int days_ago = today.day - date.day;
  if (date.month != today.month || days_ago > 6) {
    std::snprintf(out, kMaxShortText, "%02d-%02d %02d:%02d", date.month, date.day, date.hour,
                  date.minute);
    return kNoLabel;
  }
  // Only a time of today is written from the beginning; the others are appended, so that a caller
  // can put the label into `out` first.
  if (days_ago == 0) *out = '\0';
  append_hour_and_minute(date, out);
  return label_of(date, days_ago);
}

void Tfun_misc::get_local_time(char* out) noexcept {
  if (out == nullptr) return;
  const std::time_t now = std::time(nullptr);
  tm fields{};
  // localtime_r alone need not look at a changed time zone.
  ::tzset();
  ::localtime_r(&now, &fields);
  write_time(fields, "%Y-%m-%d %H:%M:%S", out);
}

void Tfun_misc::calc_time_view_times(unsigned long seconds, char* whole, char* hours, char* minutes,
                                     char* secs) noexcept {
  if (seconds == 0) return;
  const unsigned long h = seconds / 3600;
  const unsigned long m = seconds / 60 % 60;
  const unsigned long s = seconds % 60;
  // Part of the interface: in the first minute of an hour the whole shows no seconds. They are in
  // the parts.
  const unsigned long shown = h > 0 && m == 0 ? 0 : s;
  if (whole != nullptr) std::snprintf(whole, kMaxPart, "%02lu:%02lu:%02lu", h, m, shown);
  if (seconds < 60 || secs == nullptr) return;
  write_part(hours, h);
  write_part(minutes, m);
  write_part(secs, s);
}

long Tfun_misc::SecondToTimeStr(long seconds, const char* hour_unit, const char* minute_unit,
                                const char* second_unit, char* out1, char* out2) noexcept {
  char* const out = out1 != nullptr ? out1 : out2;
  if (out == nullptr) return 0;
  const char* const h = hour_unit == nullptr ? "" : hour_unit;
  const char* const m = minute_unit == nullptr ? "" : minute_unit;
  const char* const s = second_unit == nullptr ? "" : second_unit;
  int length = 0;
  // Strictly greater: 3600 seconds are 60 minutes, and 60 are no minute yet.
  if (seconds > 3600) {
    const long rest = seconds % 3600;
    const long minutes = rest > 60 ? rest / 60 : 0;
    length = std::sprintf(out, "%ld %s %ld %s %ld %s", seconds / 3600, h, minutes, m,
                          rest - minutes * 60, s);
  } else if (seconds > 60) {
    length = std::sprintf(out, "%ld %s %ld %s", seconds / 60, m, seconds % 60, s);
  } else {
    length = std::sprintf(out, "%ld %s", seconds, s);
  }
  if (out == out1 && out2 != nullptr) {
    std::memcpy(out2, out1, static_cast<std::size_t>(length) + 1);
  }
  return length;
}
