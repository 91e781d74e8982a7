#pragma once

#include <algorithm>
#include <chrono>
#include <limits>

namespace control {

/// How long it is until `end`; 0 when that is over.
inline std::chrono::milliseconds left_until(std::chrono::steady_clock::time_point end) {
  using std::chrono::milliseconds;
  return std::max(std::chrono::duration_cast<milliseconds>(end - std::chrono::steady_clock::now()),
                  milliseconds(0));
}

/// The same for `poll`, which waits for 24 days at most.
inline int poll_time_until(std::chrono::steady_clock::time_point end) {
  constexpr std::chrono::milliseconds kMost{std::numeric_limits<int>::max()};
  return static_cast<int>(std::min(left_until(end), kMost).count());
}

}  // namespace control
