#include "runner/log/calendar.h"

#include <chrono>

namespace runner {

std::optional<std::int64_t> to_moment(const calendar_moment& parts) noexcept {
  const std::chrono::year_month_day date{std::chrono::year(parts.year),
                                         std::chrono::month(static_cast<unsigned>(parts.month)),
                                         std::chrono::day(static_cast<unsigned>(parts.day))};
  const auto is_below = [](int value, int limit) { return value >= 0 && value < limit; };
  if (parts.year < 0 || !date.ok() || !is_below(parts.hour, 24) || !is_below(parts.minute, 60) ||
      !is_below(parts.second, 60) || !is_below(parts.microsecond, 1'000'000))
    return std::nullopt;
  const auto moment = std::chrono::sys_days(date) + std::chrono::hours(parts.hour) +
                      std::chrono::minutes(parts.minute) + std::chrono::seconds(parts.second) +
                      std::chrono::microseconds(parts.microsecond);
  return moment.time_since_epoch().count();
}

int number_in(std::string_view digits) noexcept {
  int value = 0;
  for (const char ch : digits) {
    if (ch < '0' || ch > '9') return -1;
    value = value * 10 + (ch - '0');
  }
  return value;
}

}  // namespace runner
