#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace runner {

/// The children of this process, adopted ones included. One thread has to be all that it has.
std::vector<pid_t> own_children();

/// Kills every process of a session whose leader has gone, or is the process that started at
/// `started`, and waits until they have gone, five seconds at most. For what a launcher left behind
/// that was killed itself.
void kill_session(pid_t session, std::uint64_t started);

}  // namespace runner
