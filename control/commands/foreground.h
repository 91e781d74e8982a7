#pragma once

#include "control/commands/session.h"
#include "control/commands/up.h"

namespace control {

/// Stays with the daemon that runs until it is to stop: SIGTERM and SIGINT stop everything in
/// order, SIGHUP has the configuration read, and whatever is handed to this process is reaped. A
/// daemon that was killed is started again, once what it left running has ended.
///
/// The daemon becomes a child of this process: `become_reaper` was called before it was started.
/// @return 0 when it was asked to stop; 1 when the daemon was killed and is not to be restarted.
int stay_with_daemon(const session& here, const up_options& options);

/// Has orphans below this process handed to it, and its signals wait for `stay_with_daemon`.
void become_reaper();

}  // namespace control
