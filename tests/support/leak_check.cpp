#include <unistd.h>

// A child that one thread forks holds what the other threads held, and a leak check there takes it
// for lost: the stacks that point to it belong to threads that do not exist. So only the test
// process itself is checked. Nothing calls this without a leak checker.

namespace {
const pid_t test_process = ::getpid();
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the leak checker's.
extern "C" int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off() {
  return ::getpid() == test_process ? 0 : 1;
}
