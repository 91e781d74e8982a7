#pragma once

#include <ctime>

/// Stops the clocks of the process at a time for as long as the object lives. One at a time.
///
/// The test binary is linked so that `time`, `gettimeofday` and `clock_gettime` come here first.
/// The standard library's own clocks go on, and so do those that do not tell the time of day.
class fake_clock final {
 public:
  /// Every reading of `clock_gettime` afterwards moves the clock on by `step` nanoseconds.
  explicit fake_clock(std::time_t seconds, long nanoseconds = 0, long step = 0);
  fake_clock(const fake_clock&) = delete;
  fake_clock& operator=(const fake_clock&) = delete;
  ~fake_clock();

  void set(std::time_t seconds);
  /// From now on no clock can be read.
  void break_clock();
};
