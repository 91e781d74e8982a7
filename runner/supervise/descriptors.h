#pragma once

namespace runner {

/// Closes what this process was started with beyond 0, 1 and 2, and fills gaps among those.
void settle_descriptors();
/// Closes every descriptor from `first` on, one by one as they are listed in /proc: for kernels
/// older than 5.9, and sandboxes, that know no other way.
void close_listed(int first);

}  // namespace runner
