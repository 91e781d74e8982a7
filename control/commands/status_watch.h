#pragma once

#include "control/commands/status.h"

namespace control {

/// Shows the status again and again on the terminal, with the starts since it began. Keys sort the
/// rows; "q" ends it.
int watch_status(const session& here, const status_options& options);

}  // namespace control
