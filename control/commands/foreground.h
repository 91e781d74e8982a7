#pragma once

#include "control/commands/session.h"
#include "control/commands/up.h"

namespace control {

/// Starts the daemon unless it runs, and stays with it until it is to stop: SIGTERM and SIGINT stop
/// everything in order, SIGHUP has the configuration read, and whatever is handed to this process
/// is reaped. A daemon that was killed, even while its programs were starting, is started again,
/// once what it left running has ended. The daemon that is started is a child of this process.
/// @return 0 when it was asked to stop; 1 when the daemon was killed and is not to be restarted.
int stay_with_daemon(const session& here, const up_options& options);

}  // namespace control
