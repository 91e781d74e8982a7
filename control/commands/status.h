#pragma once

#include <string>
#include <vector>

#include "control/commands/session.h"

namespace control {

struct status_options {
  std::vector<std::string> names;  ///< Or patterns; all when there are none.
  bool json = false;
  bool watch = false;
};

/// Shows the daemon and its programs. @return an exit status as LSB has them for `status`.
int run_status(const session& here, const status_options& options);

}  // namespace control
