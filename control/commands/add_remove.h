#pragma once

#include <chrono>
#include <string>

#include "control/commands/program_text.h"
#include "control/commands/session.h"

namespace control {

struct add_options {
  std::string name;
  std::string exepath;
  /// What a new program file is to run; without a command the program is a file that is there.
  program_text_options text{};
  bool stopped = false;
  std::chrono::milliseconds timeout{std::chrono::seconds(10)};
};

/// Lists a program, with a program file for its command if there is one, and waits until it is
/// alive unless it is to be stopped.
int run_add(const session& here, const add_options& options);

struct remove_options {
  std::string name;
  bool force = false;  ///< As for `stop`.
  std::chrono::milliseconds timeout{std::chrono::seconds(10)};
};

/// Stops a program and takes its entry out.
int run_remove(const session& here, const remove_options& options);

}  // namespace control
