#pragma once

#include <chrono>
#include <thread>

/// Looks every `pause` whether `condition` holds, for as long as `limit`, and once at least. For
/// conditions that neither a descriptor nor another thread reports.
/// @return whether it holds.
template <typename Condition>
bool poll_until(std::chrono::milliseconds limit, std::chrono::milliseconds pause,
                Condition condition) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(pause);
  }
  return true;
}
