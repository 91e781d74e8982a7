#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace control {

/// One process as the kernel describes it at a moment.
///
/// A process id alone names nobody for long: the kernel gives it out again. The id together with
/// the start does, and that pair is what is compared before anything is sent.
struct process {
  pid_t pid = 0;
  pid_t parent = 0;
  pid_t session = 0;
  char state = '?';  ///< As ps prints it: 'R', 'S', 'T', ...
  int threads = 1;
  std::uint64_t started = 0;  ///< Clock ticks since the machine was started.
  std::uint64_t cpu = 0;  ///< Clock ticks, of all its threads and the children that it has reaped.
  std::uint64_t resident = 0;  ///< Pages of memory, shared or not.
  std::string name;            ///< At most 15 bytes: what `pgrep` sees.

  /// Whether `other` describes this process and not a later one with its id.
  [[nodiscard]] bool same_as(const process& other) const {
    return pid == other.pid && started == other.started;
  }
};

}  // namespace control
