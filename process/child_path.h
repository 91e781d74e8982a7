#pragma once

#include <sys/types.h>

#include <csignal>

/// What a child of the supervisor does, from the fork to its end.
///
/// A child never executes anything itself: it runs a shell, waits for it and ends, and carries the
/// supervisor's name and memory for as long as that takes. It is forked from a process with many
/// threads, of which it has only the one that forked, and neither the others' stacks nor most of
/// the heap. So nothing here may take a lock, allocate, or look at what another thread owns: these
/// functions, and all that they call, keep to what is async-signal-safe. `child_path_symbols` in
/// the tests looks at the object file for that.
namespace child_path {

/// How the shell of a command ended.
struct shell_end {
  /// What `system` would have returned in the supervisor: -1 where SIGCHLD is ignored, because the
  /// kernel then reaps the shell before its status can be read.
  int result;
  /// The shell's status all the same, as `waitpid` gives it; -1 when there was no shell.
  int status;
};

/// Everything that a child needs to know, put together before the fork. What the pointers lead to
/// must lie on the stack of the thread that forks, or in static memory.
struct plan {
  const char* command;
  /// The directory to run the command in, with a trailing "/"; empty for the supervisor's own.
  const char* directory;
  /// The signal mask for the shell; null for the supervisor's.
  const sigset_t* mask;
  /// What SIGQUIT did in the process that started the supervisor.
  const struct sigaction* quit;
  /// Where a `shell_end` is written when the shell has ended; -1 for nowhere. A child that reports
  /// leads a process group of its own, so that it can be killed with all that it started.
  int report;
};

/// Forks without running anything else in parent or child: no handlers of the libc, which may look
/// at other threads' stacks, and no locks. In sanitizer builds an ordinary fork, which their
/// runtimes have to hear of.
/// @return as `fork`.
pid_t fork_bare() noexcept;

/// The child's whole life, in the child. Ends with status 0 whatever becomes of the command.
[[noreturn]] void run(const plan& wanted) noexcept;

}  // namespace child_path
