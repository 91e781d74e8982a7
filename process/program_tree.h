#pragma once

#include <sys/types.h>

#include <cstddef>

/// What runs below a child of the supervisor, as /proc tells it.
///
/// Between the fork and a program's first instruction stand the child, its own child that is to
/// become the shell, and the shell; none of them has the program's name.
namespace program_tree {

/// Whether the command that `child` runs has become the program, so that it can be found by name.
/// @return true also when there is nothing to wait for: the child has ended, or /proc does not
/// tell.
bool has_its_name(pid_t child) noexcept;

/// Sends `sig` to every descendant of `child` that `pgrep name` would find. Needs no process of
/// its own. A process below another that has several threads may be missed.
/// @return how many were sent it.
int signal_by_name(pid_t child, const char* name, int sig) noexcept;

}  // namespace program_tree
