#pragma once

#include <chrono>

#include "control/commands/session.h"

namespace control {

struct reload_options {
  std::chrono::milliseconds timeout{std::chrono::seconds(10)};
};

/// Has the daemon read its configuration and waits until it has acted on it.
int run_reload(const session& here, const reload_options& options);

}  // namespace control
