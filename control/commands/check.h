#pragma once

#include <string>

#include "control/commands/session.h"

namespace control {

struct check_options {
  std::string file;  ///< The daemon's own when empty.
  bool json = false;
};

/// Says what would surprise in a configuration. @return 0 for nothing, 1 for warnings, 2 for
/// errors.
int run_check(const session& here, const check_options& options);

struct plan_options {
  std::string file;
};

/// Says what the daemon would do with a configuration at its next load.
int run_plan(const session& here, const plan_options& options);

/// The steps of a plan as lines of text.
std::string plan_as_text(const session& here, const snapshot& now,
                         const std::vector<listed_program>& programs);

}  // namespace control
