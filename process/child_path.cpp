#include "process/child_path.h"

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <tuple>

namespace child_path {
namespace {

void do_nothing(int /*sig*/) {}

void set_handler(int sig, void (*handler)(int)) noexcept {
  struct sigaction action {};
  action.sa_handler = handler;
  ::sigaction(sig, &action, nullptr);
}

/// Closes the descriptors from `first` to `last`.
void close_range(unsigned first, unsigned last) noexcept {
  // Where the kernel is older than 5.9, or a sandbox forbids the call. The supervisor itself has a
  // handful of descriptors, and only what it was started with can lie beyond this.
  constexpr unsigned kMostByHand = 4096;
  if (first > last || ::syscall(SYS_close_range, first, last, 0U) == 0) return;
  for (unsigned fd = first; fd <= last && fd < kMostByHand; ++fd)
    ::close(static_cast<int>(fd));
}

/// Close-on-exec does not help here. A child that kept the log, the watch, the pid file or a
/// configuration file that is being read would keep it open for as long as its program runs; a
/// replaced configuration file would live on, and its watch would never report.
void close_all_but(int kept) noexcept {
  constexpr unsigned kFirst = STDERR_FILENO + 1;
  if (kept < 0) {
    close_range(kFirst, ~0U);
    return;
  }
  const auto middle = static_cast<unsigned>(kept);
  close_range(kFirst, middle - 1);
  close_range(middle + 1, ~0U);
}

/// What a child changes for as long as its shell runs, and the shell gets back.
struct shell_signals {
  sigset_t mask;
  struct sigaction child;
};

/// As `system` does it: SIGINT and SIGQUIT are the shell's affair, and SIGCHLD is not looked at.
shell_signals set_signals_aside(bool wants_status) noexcept {
  shell_signals before{};
  set_handler(SIGINT, SIG_IGN);
  set_handler(SIGQUIT, SIG_IGN);
  sigset_t child_signal;
  ::sigemptyset(&child_signal);
  ::sigaddset(&child_signal, SIGCHLD);
  ::pthread_sigmask(SIG_BLOCK, &child_signal, &before.mask);
  ::sigaction(SIGCHLD, nullptr, &before.child);
  // A process that ignores SIGCHLD never gets its child's status.
  if (wants_status) set_handler(SIGCHLD, SIG_DFL);
  return before;
}

/// What the shell's process begins with.
struct shell_start {
  const plan& wanted;
  const shell_signals& before;
};

/// Runs in the shell's process until that is the shell. Changes no memory but its own stack: the
/// rest is the child's.
int become_shell(void* start) noexcept {
  const auto& [wanted, before] = *static_cast<const shell_start*>(start);
  set_handler(SIGINT, SIG_DFL);
  ::sigaction(SIGQUIT, wanted.quit, nullptr);
  ::sigaction(SIGCHLD, &before.child, nullptr);
  ::pthread_sigmask(SIG_SETMASK, &before.mask, nullptr);
  char shell[] = "sh";
  char option[] = "-c";
  char* const arguments[] = {shell, option, const_cast<char*>(wanted.command), nullptr};
  ::execv("/bin/sh", arguments);
  ::_exit(127);
}

/// Starts the shell's process. It borrows the child's memory, and the child waits meanwhile: a fork
/// would copy page tables that the exec right after it throws away; docs/performance.md has what
/// that costs.
/// @return as `fork` in the parent.
pid_t fork_shell(shell_start start) noexcept {
#ifdef KEELMOND_SANITIZED
  // The sanitizers' runtimes do not know two processes in one memory.
  const pid_t shell = fork_bare();
  if (shell == 0) become_shell(&start);
  return shell;
#else
  // Enough for a signal that arrives there, with the registers of any processor.
  constexpr std::size_t kStackSize = std::size_t{32} * 1024;
  alignas(16) char stack[kStackSize];
  return ::clone(become_shell, stack + kStackSize, CLONE_VM | CLONE_VFORK | SIGCHLD, &start);
#endif
}

/// What `system` does, in calls that are safe here.
shell_end run_shell(const plan& wanted) noexcept {
  const shell_signals before = set_signals_aside(wanted.report >= 0);
  const pid_t shell = fork_shell({wanted, before});
  if (shell < 0) return {-1, -1};
  int status = -1;
  while (::waitpid(shell, &status, 0) == -1 && errno == EINTR) {
  }
  return {before.child.sa_handler == SIG_IGN ? -1 : status, status};
}

}  // namespace

pid_t fork_bare() noexcept {
#ifdef KEELMOND_SANITIZED
  return ::fork();
#else
  return ::_Fork();
#endif
}

void run(const plan& wanted) noexcept {
  close_all_but(wanted.report);
  // The supervisor's signals do nothing. They keep a handler, because a program would inherit an
  // ignored signal, and a default one would end the child.
  set_handler(SIGINT, do_nothing);
  set_handler(SIGUSR1, do_nothing);
  set_handler(SIGUSR2, do_nothing);
  if (wanted.report >= 0) ::setpgid(0, 0);
  // Only now, when the supervisor's handlers are gone.
  if (wanted.mask != nullptr) ::pthread_sigmask(SIG_SETMASK, wanted.mask, nullptr);
  // Where that fails the command runs in the supervisor's directory.
  std::ignore = ::chdir(wanted.directory);
  const shell_end end = run_shell(wanted);
  // Where that fails, whoever waited has given up.
  if (wanted.report >= 0) std::ignore = ::write(wanted.report, &end, sizeof end);
  // Not through the exit handlers: they are the supervisor's, and may wait for a lock whose holder
  // is not in this child. The program would never be started again.
  ::_exit(0);
}

}  // namespace child_path
