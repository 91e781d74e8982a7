#pragma once

namespace control {

/// Understands the command line and runs its command. @return the exit status.
int run_command_line(int argc, char** argv);

}  // namespace control
