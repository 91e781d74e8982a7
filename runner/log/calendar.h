#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace runner {

/// A moment as a calendar and a clock have it.
struct calendar_moment {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int microsecond = 0;
};

/// Microseconds since 1970 of a moment in UTC; nothing when there is no such moment.
std::optional<std::int64_t> to_moment(const calendar_moment& parts) noexcept;

/// The number that the text is; -1 when it is not digits only.
int number_in(std::string_view digits) noexcept;

}  // namespace runner
