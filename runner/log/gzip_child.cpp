#include "runner/log/gzip_child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>

namespace runner {

namespace {

constexpr int kLowestPriority = 19;
/// The calls of the kernel for the priority at the disk have no header: "this process", "only while
/// the disk is idle".
constexpr int kThisProcess = 1;
constexpr int kIdleClass = 3 << 13;

/// In the child, with what may be called between fork and exec only.
[[noreturn]] void become_gzip(int from, int to, pid_t parent) noexcept {
  // At once: under the name of its parent it would be taken for a second one.
  ::prctl(PR_SET_NAME, "gzip");
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(kNoGzip);
  for (int number = 1; number < NSIG; ++number)
    ::signal(number, SIG_DFL);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::setpriority(PRIO_PROCESS, 0, kLowestPriority);
  ::syscall(SYS_ioprio_set, kThisProcess, 0, kIdleClass);
  const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (::dup2(from, STDIN_FILENO) >= 0 && ::dup2(to, STDOUT_FILENO) >= 0 &&
      ::dup2(nowhere, STDERR_FILENO) >= 0)
    ::execlp("gzip", "gzip", "-c", nullptr);
  ::_exit(kNoGzip);
}

}  // namespace

pid_t start_gzip(int from, int to) noexcept {
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child == 0) become_gzip(from, to, parent);
  return child;
}

}  // namespace runner
