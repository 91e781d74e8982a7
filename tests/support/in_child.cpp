#include "tests/support/in_child.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>

#include "common/misc/unique_fd.h"
#include "tests/support/fault.h"
#include "tests/support/scratch_dir.h"

namespace {

constexpr unsigned kLongestSeconds = 100;

std::string text_of(const testing::TestPartResult& part) {
  const char* const file = part.file_name() == nullptr ? "unknown file" : part.file_name();
  return std::string(file) + ":" + std::to_string(part.line_number()) + ": " + part.message() +
         "\n";
}

/// Runs the body and gathers what failed in it.
std::string failures_of(const std::function<void()>& body) {
  testing::TestPartResultArray parts;
  std::string failures;
  {
    const testing::ScopedFakeTestPartResultReporter reporter(
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &parts);
    try {
      body();
    } catch (const std::exception& escaped) {
      failures = std::string("exception: ") + escaped.what() + "\n";
    }
  }
  for (int i = 0; i < parts.size(); ++i) {
    if (parts.GetTestPartResult(i).failed()) failures += text_of(parts.GetTestPartResult(i));
  }
  return failures;
}

/// What the process writes to the file when its body has returned, before the failures.
constexpr char kReturned = '+';

[[noreturn]] void run(const std::function<void()>& body, pid_t parent,
                      const std::filesystem::path& directory, int report) {
  ::setsid();
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(1);
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  ::alarm(kLongestSeconds);
  std::filesystem::current_path(directory);
  const std::string text = kReturned + failures_of(body);
  if (::pwrite(report, text.data(), text.size(), 0) < 0) ::_exit(1);
  // Not every stream: one that a thread is writing to and that hangs would be waited for.
  std::fflush(stdout);
  // Its threads may still run: nothing is destroyed under them.
  ::_exit(0);
}

}  // namespace

child_end run_in_child(const std::function<void()>& body) {
  const scratch_dir scratch;
  const unique_fd report(::memfd_create("report", MFD_CLOEXEC));
  const pid_t parent = ::getpid();
  std::fflush(nullptr);
  const pid_t child = real::fork();
  if (child < 0) throw std::runtime_error("cannot fork");
  if (child == 0) run(body, parent, scratch.path(), report.get());

  siginfo_t ended{};
  while (::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT) != 0 &&
         errno == EINTR) {
  }
  // Not reaped yet, so that the group's number still belongs to it.
  real::kill(-child, SIGKILL);
  child_end result;
  real::waitpid(child, &result.status, 0);
  char first = 0;
  result.returned = ::pread(report.get(), &first, 1, 0) == 1 && first == kReturned;
  char part[4096];
  for (off_t at = 1;;) {
    const ssize_t got = ::pread(report.get(), part, sizeof part, at);
    if (got <= 0) return result;
    result.failures.append(part, static_cast<std::size_t>(got));
    at += got;
  }
}

void in_child(const std::function<void()>& body) {
  const child_end end = run_in_child(body);
  if (!end.failures.empty()) ADD_FAILURE() << "in a process of its own:\n" << end.failures;
  if (!end.returned || end.status != 0) {
    ADD_FAILURE() << "the process ended with status " << end.status;
  }
}
