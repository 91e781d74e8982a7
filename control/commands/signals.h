#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "control/commands/session.h"

namespace control {

/// The number of a signal: "USR2", "SIGUSR2" or "12". @throws failure when there is none.
int parse_signal(const std::string& text);

struct restart_options {
  std::vector<std::string> names;
  bool all = false;
  std::string signal = "USR2";
  std::chrono::milliseconds timeout{std::chrono::seconds(10)};
};

/// Ends programs, the process itself and nobody else, and waits until the daemon has started them
/// again.
int run_restart(const session& here, const restart_options& options);

struct signal_options {
  std::string name;
  std::string signal;
};

/// Sends a program's process a signal.
int run_signal(const session& here, const signal_options& options);

}  // namespace control
