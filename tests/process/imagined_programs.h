#pragma once

#include <sys/types.h>

#include <atomic>

/// Programs that do not exist, in the process of a test (see `in_child`): `fork` answers a number,
/// and the program is over when `end_one` has been called. An idle monitor's second takes a
/// millisecond.
///
/// Made once in a process, because the monitors' threads go on using it until that ends. A test may
/// put other functions into `faults` afterwards.
struct imagined_programs {
  /// More than the largest process id that Linux ever gives.
  static constexpr pid_t kFirst = 5000000;

  static imagined_programs& begin();

  void end_one() { ++may_end; }
  /// Whether the program with that number, counted from 1, is being waited for.
  [[nodiscard]] bool is_waiting(int number) const { return waits == number; }

  std::atomic<int> forks{0};
  std::atomic<int> waits{0};
  std::atomic<pid_t> waited_for{-1};
  std::atomic<int> wait_options{-1};
  /// How many programs may end.
  std::atomic<int> may_end{0};
  std::atomic<int> sleeps{0};
  std::atomic<long> slept_seconds{-1};
  std::atomic<long> slept_microseconds{-1};

 private:
  imagined_programs();
};
