#pragma once

#include <chrono>

#include "control/commands/session.h"

namespace control {

struct edit_options {
  std::chrono::milliseconds timeout{std::chrono::seconds(10)};
};

/// Lets the person change a copy of the configuration in an editor, shows what is wrong with it and
/// what it would do, and saves it.
int run_edit(const session& here, const edit_options& options);

}  // namespace control
