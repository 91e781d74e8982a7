#include "tests/process/imagined_programs.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include "process/child.h"
#include "tests/support/fault.h"

imagined_programs& imagined_programs::begin() {
  static auto* const instance = new imagined_programs;
  return *instance;
}

imagined_programs::imagined_programs() {
  child::start();
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
