#pragma once

#include <chrono>
#include <thread>

/// Polls `condition` every few milliseconds until it holds or the time is over.
/// @return whether it held.
template <typename Condition>
bool wait_until(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

/// Whether `condition` goes on holding for a while: for what must not happen, where there is
/// nothing else to wait for.
template <typename Condition>
bool keeps(Condition condition,
           std::chrono::milliseconds duration = std::chrono::milliseconds(300)) {
  return !wait_until([&] { return !condition(); }, duration);
}

/// Whether `condition` does not come to hold for a moment, in a test that does not leave its
/// process and meets nothing slower than a thread.
template <typename Condition>
bool never(Condition condition) {
  return !wait_until(condition, std::chrono::milliseconds(15));
}
