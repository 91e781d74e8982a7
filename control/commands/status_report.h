#pragma once

#include <string>
#include <vector>

#include "control/commands/session.h"
#include "control/site/program_status.h"

namespace control {

/// What `status` shows, as text for people and as JSON for programs. docs/keelmondctl.md describes
/// the JSON; fields are added to it and never changed or removed while its version stays.
struct status_report {
  const session& here;
  const snapshot& now;
  /// Those that were asked for, with their memory.
  const std::vector<program_status>& programs;
  /// How many there are of each kind, all of them counted: see `count_programs`.
  std::string counts;

  /// One line on the daemon, with the warnings below it.
  [[nodiscard]] std::string head() const;
  [[nodiscard]] std::string text() const;
  [[nodiscard]] std::string json() const;
  /// What people should know and the table does not tell.
  [[nodiscard]] std::vector<std::string> warnings() const;
};

/// "3 running, 1 stopped".
std::string count_programs(const std::vector<program_status>& programs);

/// How a state is to be painted.
tone tone_of(actual what);

}  // namespace control
