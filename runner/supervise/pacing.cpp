#include "runner/supervise/pacing.h"

#include <algorithm>

namespace runner {

pacing::verdict pacing::ended(std::optional<milliseconds> lived) {
  // Without a first pause there is one from the second time on, and however short a steady life may
  // be, the next start is not nearer than that to the last: nothing may turn into a hot loop.
  constexpr milliseconds kLeast{100};
  if (lived && *lived >= wanted_.steady) {
    failures_ = 0;
    return {false, std::max(wanted_.delay, kLeast - *lived)};
  }
  ++failures_;
  if (wanted_.give_up > 0 && failures_ >= wanted_.give_up) return {true, milliseconds(0)};
  if (failures_ == 1) return {false, wanted_.delay};
  milliseconds pause = std::max(wanted_.delay, kLeast / 2);
  for (std::uint64_t i = 1; i < failures_ && pause < wanted_.longest; ++i)
    pause *= 2;
  return {false, std::min(pause, std::max(wanted_.longest, kLeast))};
}

}  // namespace runner
