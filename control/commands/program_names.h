#pragma once

#include <string>
#include <vector>

#include "control/commands/session.h"

namespace control {

/// The listed programs that the patterns pick, in the order of the file; all of them with `all`.
/// @throws failure when a pattern picks none, or when there is neither a pattern nor `all`.
std::vector<std::string> pick_programs(const snapshot& now,
                                       const std::vector<std::string>& patterns, bool all);

/// "NAME (PID n)" of processes that `pgrep NAME` finds and that are of none of the programs that
/// are to be stopped, `stopped`; to stop the program stops them, too.
std::vector<std::string> bystanders_of(const session& here, const snapshot& now,
                                       const std::string& name,
                                       const std::vector<std::string>& stopped);

}  // namespace control
