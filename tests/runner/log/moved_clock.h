#pragma once

#include <chrono>
#include <cstdint>

/// Puts the clocks that the code under test reads forward, for as long as the object lives. The one
/// that deadlines are measured with stands still unless it is moved, however slow the machine is;
/// the one on the wall goes on until it is stopped. One at a time. The linker has `clock_gettime`
/// come here first.
class moved_clock final {
 public:
  moved_clock();
  moved_clock(const moved_clock&) = delete;
  moved_clock& operator=(const moved_clock&) = delete;
  ~moved_clock();

  /// Moves all of them on.
  void advance(std::chrono::microseconds by);
  /// Moves the clock on the wall alone, which may go back.
  void advance_wall(std::chrono::microseconds by);
  /// Stops the clock on the wall at a time, in microseconds since 1970.
  void stop_wall(std::int64_t at);
};
