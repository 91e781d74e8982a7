#pragma once

#include <chrono>
#include <functional>

#include "control/commands/session.h"

namespace control {

struct up_options {
  std::chrono::milliseconds timeout{std::chrono::seconds(10)};
  bool foreground = false;  ///< Stays until it is told to stop; see foreground.h.
  bool restart = true;      ///< In the foreground, of a daemon that was killed.
  bool as_root = false;     ///< Also where the list belongs to another user.
};

/// Starts the daemon unless it runs, and waits until the programs marked "run" are alive.
int run_up(const session& here, const up_options& options);

/// Starts the daemon unless it runs. What an earlier daemon left behind is stopped first.
/// @return the daemon. @throws failure when there is none, and why.
process ensure_daemon(const session& here, std::chrono::milliseconds limit, bool as_root);

/// Waits until the programs marked "run" are alive, and says how many are.
/// @param gives_up asked now and then; the rest is left out when it says so.
/// @return 0 when all are. @throws failure when the daemon ends meanwhile.
int wait_for_programs(
    const session& here, std::chrono::milliseconds limit,
    const std::function<bool()>& gives_up = [] { return false; });

/// Stops programs that a daemon left behind, by SIGUSR2, and kills those that do not end by it;
/// says so. @return how many there were.
std::size_t stop_left_over(const session& here, const snapshot& now,
                           std::chrono::milliseconds grace);

/// Starts the daemon, having removed a pid file that was left over, and waits until it is there.
/// @throws failure when it does not stay.
process launch_daemon(const session& here, std::chrono::milliseconds limit);

}  // namespace control
