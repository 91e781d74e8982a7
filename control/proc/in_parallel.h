#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <thread>
#include <vector>

namespace control {

/// Calls `work(i)` for every i below `count`, on several threads when that is worth it. `work` must
/// not throw, and must be safe to be called for different i at once.
template <typename Work>
void in_parallel(std::size_t count, Work work) {
  // Below this, a thread costs more than it saves.
  constexpr std::size_t kFew = 128;
  const std::size_t cores = std::clamp(std::thread::hardware_concurrency(), 1U, 8U);
  std::atomic<std::size_t> next{0};
  // Relaxed: only the numbers are shared, and joining carries the results over.
  const auto run = [&] {
    for (std::size_t i; (i = next.fetch_add(1, std::memory_order_relaxed)) < count;)
      work(i);
  };
  std::vector<std::jthread> helpers;
  for (std::size_t i = 1; i < cores && count >= kFew; ++i)
    helpers.emplace_back(run);
  run();
}

}  // namespace control
