#pragma once

#include <sys/types.h>

#include <chrono>

#include "process/child_path.h"

/// Children of the supervisor: how programs and commands are run.
///
/// A child shares its memory with the supervisor until one of the two writes, and keeps its half
/// for as long as its program runs. So the stacks of monitors, the monitors themselves, and a
/// configuration while it is loaded lie in memory that children do not get (`unforked_memory`):
/// with ten thousand programs a child is as small, and forked as quickly, as with ten. A thread on
/// such a stack cannot fork. One thread does it for all, on an ordinary stack: `start` creates it,
/// and from then on nobody else in the supervisor forks. It touches nothing but the request that
/// it serves, and the child does nothing but what `child_path` shows.
namespace child {

/// Creates the thread that forks, if it does not exist. Called once, by `proc_start`, before the
/// first monitor is started.
/// @return whether it exists. Without it nothing can be run, and a later call tries again.
bool start() noexcept;

/// Longest command in bytes with its terminator; a longer one is not run.
inline constexpr unsigned kCommandSize = 1024;

/// Runs a supervised program in a child of its own, as `fork` does: in the directory of `command`
/// (its text up to the last "/"; a failure is ignored), through the shell, with the descriptors 0,
/// 1 and 2 and the signal mask that the supervisor was started with. The child ends with status 0
/// when the command has ended. Called from any thread.
/// @return the child's process id; -1 with errno set: EAGAIN also when there is no thread that
///         forks, E2BIG when the command is too long; 0 after `refuse_programs`.
pid_t start_program(const char* command) noexcept;

/// No program is started from now on, also none whose thread already waits for its fork: a
/// thousand may, when the shutdown begins. Commands are run as before. Called from any thread.
void refuse_programs() noexcept;

/// How much of a command was run.
enum class outcome {
  ended,        ///< its shell has ended
  not_started,  ///< there was no process, descriptor or shell for it
  given_up,     ///< it took too long, or was not waited for any more; it has been killed
};

struct command_end {
  outcome what;
  /// What `system` would have returned; -1 unless the shell has ended.
  int result;
  /// The shell's status as `waitpid` gives it; -1 unless the shell has ended.
  int status;
};

/// Runs `command` through the shell in a child of its own and waits for it. The supervisor's
/// signals stay blocked in it: one that is sent to the supervisor by name must not hit the shell
/// before its first instruction, and lose the command.
/// @param limit after which it is killed, with everything that it has started: its process group,
///        and what runs below its child in groups of its own.
/// @param must_hurry asked before the command is run, which it then is not, and every 50 ms while
///        it runs; a command that is not over when it says yes is killed at once.
command_end run_command(const char* command, std::chrono::milliseconds limit,
                        bool (*must_hurry)()) noexcept;

}  // namespace child
