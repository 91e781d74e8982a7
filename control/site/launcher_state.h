#pragma once

#include <cstdint>
#include <string>

#include "control/site/program_status.h"
#include "runner/file/state_file.h"

namespace control {

/// "waiting 4 s, attempt 5: exit 1": what a program does that a launcher runs. Empty while
/// there is nothing to explain.
/// @param now in milliseconds since 1970.
std::string describe_state(const runner::program_state& state, std::int64_t now);

/// Replaces what can be seen from outside, where the program is a launcher, by what that launcher
/// tells of its own program: what it does, why, and its process. A state that another launcher has
/// left behind tells nothing. @return whether it is that launcher's.
bool apply_state(const runner::program_state& state, std::int64_t now, program_status& status);

}  // namespace control
