#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace runner {

/// One process as /proc tells. The id alone names nobody for long, the id and the start do.
struct process_stat {
  pid_t pid = 0;
  char state = '?';
  pid_t parent = 0;
  pid_t session = 0;
  int threads = 1;
  std::uint64_t started = 0;  ///< Clock ticks since boot.
};

/// @return nothing when there is no such process; one that only waits to be reaped counts as none.
std::optional<process_stat> read_process_stat(pid_t pid);

/// Where a link of /proc/PID leads; empty when that cannot be told.
std::string read_process_link(pid_t pid, const char* name);

/// Calls `look` with each number that is the name of an entry of a directory, in no order, until it
/// returns true. @return whether it has.
bool find_number(const std::string& directory, const std::function<bool(int)>& look);

}  // namespace runner
