#include "tests/process/imagined_programs.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include "tests/support/fault.h"

namespace {
std::atomic<bool> at_once{false};
}

// The linker sends the monitors' launches here (see tests/CMakeLists.txt); the names are those of
// forked_copy::start_program, as the compiler writes them.
extern "C" {
pid_t __real__ZN11forked_copy13start_programEPKc(const char* command);
pid_t __wrap__ZN11forked_copy13start_programEPKc(const char* command);
pid_t __wrap__ZN11forked_copy13start_programEPKc(const char* command) {
  return at_once ? faults.fork() : __real__ZN11forked_copy13start_programEPKc(command);
}
}

void imagined_programs::fork_at_once() {
  at_once = true;
}

imagined_programs& imagined_programs::begin() {
  static auto* const instance = new imagined_programs;
  return *instance;
}

imagined_programs::imagined_programs() {
  faults.fork = [this] { return kFirst + forks++; };
  faults.waitpid = [this](pid_t pid, int*, int options) {
    waited_for = pid;
    wait_options = options;
    const int number = ++waits;
    while (may_end < number)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    errno = 0;
    return pid;
  };
  faults.select = [this](int, fd_set*, fd_set*, fd_set*, timeval* limit) {
    slept_seconds = limit->tv_sec;
    slept_microseconds = limit->tv_usec;
    ++sleeps;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return 0;
  };
}
