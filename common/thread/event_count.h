#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

/// A count of events that a thread can sleep on until it changes.
///
/// The waits of `std::atomic` yield a few times before they sleep. Meanwhile the thread stays
/// runnable, on the processor on which the thread that it woke, or the process that was just
/// forked, is about to run. Here it sleeps at once.
///
/// Any thread may call any member. What was written before `advance` can be read after
/// `await_change` has returned because of it.
class event_count final {
 public:
  /// Has the kernel keep the threads of this process that sleep on counts in the table of the whole
  /// machine. Since 6.16 Linux gives a process with threads one of its own, of 16 lists where there
  /// are two processors, and whoever wakes a thread goes through a list: a twentieth of the time
  /// that ten thousand programs take to start. Changes nothing on other kernels. To be called
  /// before there is a second thread.
  static void use_common_table() noexcept;

  constexpr event_count() = default;
  event_count(const event_count&) = delete;
  event_count& operator=(const event_count&) = delete;

  [[nodiscard]] std::uint32_t current() const noexcept {
    return count_.load(std::memory_order_acquire);
  }
  /// Counts one more event and wakes one thread that waits. The object may be gone as soon as its
  /// count has changed: nothing but its address is used after that.
  void advance() noexcept;
  /// Sleeps until the count is another than `seen`, whatever signals arrive meanwhile.
  void await_change(std::uint32_t seen) const noexcept;
  /// The same, for `limit` at most. @return whether it is another.
  bool await_change_for(std::uint32_t seen, std::chrono::nanoseconds limit) const noexcept;

 private:
  std::atomic<std::uint32_t> count_{0};
};
