// Measures how long it takes from a fork to the first instruction of a program.
//
//     launch_clock RUNS COMMAND...   runs the command so often, which ends in "launch_clock stamp",
//                                    and prints the nanoseconds of each; holds run.pid open, as the
//                                    supervisor does
//     launch_clock stamp             writes the time to standard output as its first act

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

std::int64_t now() {
  timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

int stamp() {
  const std::int64_t time = now();
  return ::write(STDOUT_FILENO, &time, sizeof time) == sizeof time ? 0 : 1;
}

/// @return the nanoseconds, or -1.
std::int64_t launch(char** command) {
  int ends[2];
  if (::pipe(ends) != 0) return -1;
  const std::int64_t begin = now();
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(ends[1], STDOUT_FILENO);
    ::close(ends[0]);
    ::close(ends[1]);
    ::execv(command[0], command);
    ::_exit(127);
  }
  ::close(ends[1]);
  std::int64_t end = 0;
  const bool has_come = child > 0 && ::read(ends[0], &end, sizeof end) == sizeof end;
  ::close(ends[0]);
  // A launcher stays, and is told to stop; the others have ended or are about to.
  ::kill(child, SIGUSR2);
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return has_come ? end - begin : -1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "stamp") == 0) return stamp();
  if (argc < 3) return 2;
  if (::open("run.pid", O_RDWR | O_CREAT | O_CLOEXEC, 0644) < 0) return 1;
  const long runs = std::strtol(argv[1], nullptr, 10);
  for (long i = 0; i < runs; ++i) {
    const std::int64_t taken = launch(argv + 2);
    if (taken < 0) return 1;
    std::printf("%lld\n", static_cast<long long>(taken));
  }
  return 0;
}
