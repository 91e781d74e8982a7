#pragma once

#include <string>
#include <vector>

#include "runner/supervise/known_process.h"

namespace runner {

/// What stands between this process and its supervisor.
///
/// The supervisor is the ancestor that holds run.pid of its working directory open. Below it stand
/// its child for this program and the shell that the child runs. When one of them goes, the
/// supervisor counts the program as ended and starts it again, so the present one has to end. The
/// supervisor itself may go: its programs run on, as they always do.
struct supervisor_chain {
  /// The supervisor's directory; empty when this process was not started by one.
  std::string directory;
  /// Those in between.
  std::vector<known_process> links;
  /// Whether a link was gone before it could be watched.
  bool broken = false;
};

/// Looks upwards from this process. An ancestor that this user may not look into holds nothing.
supervisor_chain find_supervisor();

}  // namespace runner
