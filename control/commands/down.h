#pragma once

#include <chrono>

#include "control/commands/session.h"

namespace control {

struct down_options {
  std::chrono::milliseconds timeout{std::chrono::seconds(30)};
  bool kill = false;  ///< Kills what has not ended in time.
};

/// Shuts the daemon down, with its programs, and stops what an earlier daemon left over.
int run_down(const session& here, const down_options& options);

}  // namespace control
