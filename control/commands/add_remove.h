#pragma once

#include <chrono>
#include <string>

#include "control/commands/session.h"

namespace control {

struct add_options {
  std::string name;
  std::string exepath;
  bool stopped = false;
  std::chrono::milliseconds timeout{std::chrono::seconds(10)};
};

/// Lists a program, and waits until it is alive unless it is to be stopped.
int run_add(const session& here, const add_options& options);

struct remove_options {
  std::string name;
  bool force = false;  ///< As for `stop`.
  std::chrono::milliseconds timeout{std::chrono::seconds(10)};
};

/// Stops a program and takes its entry out.
int run_remove(const session& here, const remove_options& options);

}  // namespace control
