#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "tests/support/wait_until.h"

// Stands in for `fork` in the supervisor that the stress tests start as the fast one. A test that
// wants a launch to take its time writes the files "hold_fork" and "hold_copy" to the working
// directory. The next fork renames the first to "held_fork" and does not fork before that is gone;
// its copy does nothing before the second is gone.

namespace {

void wait_until_gone(const char* name) {
  wait_until([name] { return ::access(name, F_OK) != 0; }, std::chrono::seconds(20));
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

pid_t __real_fork();

pid_t __wrap_fork() {
  if (std::rename("hold_fork", "held_fork") != 0) return __real_fork();
  wait_until_gone("held_fork");
  const pid_t copy = __real_fork();
  if (copy == 0) wait_until_gone("hold_copy");
  return copy;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
