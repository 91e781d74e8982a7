#pragma once

#include <poll.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace runner {

/// Whole pages.
struct memory_part {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
};

/// Waits, and keeps the launcher small meanwhile.
///
/// A launcher waits for days, and a machine may have thousands. What it needs for that is two or
/// three pages of code and its data; the rest of its program is only mapped because it was used
/// once. So before a long wait that is given back, to be mapped again when something happens, which
/// costs a few page faults.
class resting_place final {
 public:
  resting_place();
  /// As `poll`, for a wait that may be long.
  int wait(std::vector<pollfd>& requests, int limit) const;

 private:
  /// The program without what can be written to.
  std::array<memory_part, 4> fixed_{};
  std::size_t fixed_count_ = 0;
  /// What of it can be written to.
  memory_part data_{};
};

}  // namespace runner
