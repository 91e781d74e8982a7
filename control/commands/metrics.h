#pragma once

#include <string>

#include "control/commands/session.h"

namespace control {

struct metrics_options {
  std::string textfile;  ///< Standard output when empty.
};

/// Writes figures in the text format of Prometheus.
int run_metrics(const session& here, const metrics_options& options);

}  // namespace control
