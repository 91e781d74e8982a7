#pragma once

#include <sys/types.h>

/// What forked copies of the supervisor do. A copy never execs: it carries the supervisor's name,
/// handlers, descriptors and memory for as long as its command runs, so what it must not hold is
/// given up here, first thing after `fork`.
namespace forked_copy {

/// Starts a supervised program in a copy of its own, as `fork` does.
///
/// The copy changes into the directory of `command` (its text up to the last "/"; a failure is
/// ignored), runs it with `system` and ends with status 0. The program gets the descriptors 0, 1
/// and 2 and the signal mask that the supervisor was started with.
/// @param command a shell command of up to 1023 bytes.
/// @return the copy's process id, or -1 with errno set.
pid_t start_program(const char* command) noexcept;

/// Runs `command` with `system` in a copy of its own and waits for it.
///
/// `system` keeps state for the whole process: a lock, and SIGINT and SIGQUIT ignored while the
/// command runs. A monitor that forks at that moment would hand them on, and its copy could wait
/// for ever for a lock that nobody in it will release. So the supervisor itself never calls it.
/// @return what `system` returned; -1 also when there is no process to be had.
int run_command(const char* command) noexcept;

}  // namespace forked_copy
