#pragma once

#include <string>

#include "control/site/site.h"

namespace control {

/// A program of this system: the one installed beside keelmondctl or built with it, else the one in
/// PATH.
/// @throws failure when there is none.
std::string find_installed_program(const std::string& name);

/// Runs the program in the directory, as the start of a daemon: nothing to read, its output behind
/// that of earlier ones in console.txt. Returns when the started process has ended, which leaves
/// the daemon behind or not.
/// @throws failure when it cannot be started.
void start_daemon(const std::string& program, const site& place);

/// Removes a run.pid that no living daemon holds, and says whether there was one. Starts in this
/// directory are kept away meanwhile.
bool remove_left_over_pid_file(const site& place);

}  // namespace control
