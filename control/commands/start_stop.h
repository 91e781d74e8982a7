#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "control/commands/session.h"

namespace control {

struct start_options {
  std::vector<std::string> names;  ///< Or patterns.
  bool all = false;
  std::chrono::milliseconds timeout{std::chrono::seconds(10)};
};

/// Sets programs to "run" and waits until they are alive.
int run_start(const session& here, const start_options& options);

struct stop_options {
  std::vector<std::string> names;
  bool all = false;
  bool force = false;  ///< Also when others have names that fit.
  std::chrono::milliseconds timeout{std::chrono::seconds(10)};
};

/// Sets programs to "stop" and waits until they have ended. Refuses to when processes that are
/// none of theirs would be hit, too.
int run_stop(const session& here, const stop_options& options);

/// The same for exactly these names, which are no patterns.
int stop_programs(const session& here, const std::vector<std::string>& names,
                  const stop_options& options);

/// Waits until every one of the programs is alive, or has ended.
/// @return those that have not got there in time, each with what is known of the reason.
std::vector<std::string> wait_for_programs(const session& here,
                                           const std::vector<std::string>& names, bool alive,
                                           std::chrono::milliseconds limit);

}  // namespace control
