#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "tests/support/fork_rule.h"
#include "tests/support/wait_until.h"

// Stands in for `fork` and `_Fork` in the supervisor that the stress tests start as the fast one.
//
// A second thread that forks ends it. A test that wants a launch to take its time writes the files
// "hold_fork" and "hold_child" to the working directory. The next fork renames the first to
// "held_fork" and does not fork before that is gone; its child does nothing before the second is
// gone.

namespace {

void wait_until_gone(const char* name) {
  wait_until([name] { return ::access(name, F_OK) != 0; }, std::chrono::seconds(20));
}

pid_t fork_when_let(pid_t (*fork)()) {
  require_forking_thread();
  if (std::rename("hold_fork", "held_fork") != 0) return fork();
  wait_until_gone("held_fork");
  const pid_t child = fork();
  if (child == 0) wait_until_gone("hold_child");
  return child;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

pid_t __real_fork();
pid_t __real__Fork();

pid_t __wrap_fork() {
  return fork_when_let(__real_fork);
}

pid_t __wrap__Fork() {
  return fork_when_let(__real__Fork);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
