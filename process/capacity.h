#pragma once

#include <cstddef>

/// How many programs the machine can hold.
namespace capacity {

/// What one program takes of each limit on processes and threads: its monitor's thread, the child
/// that waits for it, the shell and the program.
inline constexpr long kTasksPerProgram = 4;

/// Says in one line on standard error when the machine, the user or the control group may not have
/// as many processes and threads as `programs` need, and which limit that is. Without that line a
/// fork fails, again and again, and nobody knows why.
void warn_before(std::size_t programs);

}  // namespace capacity
