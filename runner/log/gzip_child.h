#pragma once

#include <sys/types.h>

namespace runner {

/// How a child ends that has found no gzip.
constexpr int kNoGzip = 127;

/// Starts a gzip that reads the file `from` and writes to the file `to`, when nobody else wants the
/// processor or the disk. It ends with this process.
/// @return its id; -1 when there cannot be one.
pid_t start_gzip(int from, int to) noexcept;

}  // namespace runner
