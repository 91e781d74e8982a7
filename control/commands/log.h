#pragma once

#include <cstddef>
#include <string>

#include "control/commands/session.h"

namespace control {

struct log_options {
  std::size_t count = 20;  ///< How many events; with `since`, all unless it is given.
  bool count_given = false;
  bool follow = false;
  std::string since;
  bool json = false;
};

/// Shows the daemon's log, a line for each event.
int run_log(const session& here, const log_options& options);

}  // namespace control
