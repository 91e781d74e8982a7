#pragma once

#include <atomic>
#include <chrono>

/// The phase that a monitor is in, from before its thread exists.
///
///     none -> idle <-> launching -> running -> idle ... -> ended
///
/// `none` and `ended` have no thread. The monitor's thread makes every change but the first, which
/// `claim` and `give_back` make for whoever starts it; any thread may look.
///
/// Every atomic here keeps the default order, like the text of the state that a launch depends on:
/// either the loader sees that a launch is going on, or the launch sees the loader's new state.
class monitor_phase final {
 public:
  using clock = std::chrono::steady_clock;

  /// Makes sure that a monitor gets one thread, however often it is started.
  /// @return false when it has one, or had one.
  bool claim() noexcept {
    auto expected = phase::none;
    return phase_.compare_exchange_strong(expected, phase::idle);
  }
  /// No thread could be created: a later start tries again.
  void give_back() noexcept { phase_.store(phase::none); }

  /// Before the state is tested; a launch may follow.
  void launch() noexcept { phase_.store(phase::launching); }
  /// A program has been launched.
  void run() noexcept {
    launched_at_.store(clock::now().time_since_epoch());
    phase_.store(phase::running);
  }
  /// Nothing was launched, or the program has ended.
  void rest() noexcept { phase_.store(phase::idle); }
  /// The thread ends, for good.
  void end() noexcept { phase_.store(phase::ended); }

  [[nodiscard]] bool is_launching() const noexcept { return phase_.load() == phase::launching; }
  [[nodiscard]] bool is_running() const noexcept { return phase_.load() == phase::running; }
  /// For how long the program that was launched last has been running, if it still does.
  [[nodiscard]] clock::duration running_for() const noexcept {
    return clock::now().time_since_epoch() - launched_at_.load();
  }

 private:
  enum class phase : char { none, idle, launching, running, ended };

  std::atomic<phase> phase_{phase::none};
  std::atomic<clock::duration> launched_at_{};
};
