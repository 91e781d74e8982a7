#include "common/thread/event_count.h"

#include <linux/futex.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

// The kernel reads and compares 32 bits at the address that it is given.
static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

void event_count::use_common_table() noexcept {
  // <linux/prctl.h> has the names since Linux 6.16. No lists at all stand for the common table.
  constexpr int kFutexHash = 78;
  constexpr unsigned long kSetSlots = 1;
  ::prctl(kFutexHash, kSetSlots, 0UL, 0UL, 0UL);
}

void event_count::advance() noexcept {
  const std::atomic<std::uint32_t>* const address = &count_;
  count_.fetch_add(1, std::memory_order_release);
  ::syscall(SYS_futex, address, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void event_count::await_change(std::uint32_t seen) const noexcept {
  while (current() == seen)
    ::syscall(SYS_futex, &count_, FUTEX_WAIT_PRIVATE, seen, nullptr, nullptr, 0);
}

bool event_count::await_change_for(std::uint32_t seen,
                                   std::chrono::nanoseconds limit) const noexcept {
  using clock = std::chrono::steady_clock;
  const auto end = clock::now() + limit;
  while (current() == seen) {
    const std::chrono::nanoseconds left = end - clock::now();
    if (left <= std::chrono::nanoseconds::zero()) return false;
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timespec wait{static_cast<time_t>(seconds.count()),
                        static_cast<long>((left - seconds).count())};
    ::syscall(SYS_futex, &count_, FUTEX_WAIT_PRIVATE, seen, &wait);
  }
  return true;
}
