#pragma once

#include "control/commands/session.h"

namespace control {

struct init_options {
  bool example = false;  ///< With the programs of examples/.
};

/// Makes what a supervisor needs in its directory and overwrites nothing.
int run_init(const session& here, const init_options& options);

}  // namespace control
