#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>

namespace runner {

using time_point = std::chrono::steady_clock::time_point;

/// The time that never jumps, for deadlines.
inline time_point steady_now() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return time_point(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
}

/// Microseconds since 1970.
inline std::int64_t wall_now() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return std::int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

}  // namespace runner
