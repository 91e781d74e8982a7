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
