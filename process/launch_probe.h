#pragma once

#include <sys/types.h>

/// Looks at a program that has just been launched, through /proc.
namespace launch_probe {

/// Whether the command that `copy` runs has become the program, so that it can be found by name.
///
/// Between the fork and the program's first instruction stand the copy, its child that is still a
/// copy, and the shell; none of them has the program's name.
/// @return true also when there is nothing to wait for: the copy has ended, or /proc does not tell.
bool is_findable(pid_t copy) noexcept;

}  // namespace launch_probe
