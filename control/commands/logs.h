#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "control/commands/session.h"

namespace control {

struct logs_options {
  std::vector<std::string> names;
  bool all = false;
  std::size_t count = 20;  ///< How many lines, of all logs together.
  bool follow = false;
};

/// Shows what programs have written to the logs that their own files name.
int run_logs(const session& here, const logs_options& options);

}  // namespace control
