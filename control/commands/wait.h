#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "control/commands/session.h"

namespace control {

struct wait_options {
  std::vector<std::string> names;  ///< Or patterns.
  bool up = false;                 ///< Until they are alive, as without either.
  bool down = false;               ///< Until they have ended.
  std::optional<std::chrono::milliseconds> timeout = {};
};

/// Waits until programs are alive or have ended. It sleeps until something has happened to one of
/// them. @return 0 when it is so, 1 when the time is over.
int run_wait(const session& here, const wait_options& options);

}  // namespace control
