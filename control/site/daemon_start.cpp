#include "control/site/daemon_start.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "common/misc/poll_until.h"
#include "common/misc/unique_fd.h"
#include "control/proc/process_table.h"
#include "control/site/daemon_search.h"
#include "control/text/failure.h"

namespace control {
namespace {

constexpr std::chrono::seconds kLongestStart{10};

std::string directory_above(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return path.substr(0, slash == std::string::npos ? 0 : slash);
}

/// Where the programs of this system are: all in one directory once they are installed, each in
/// that of its part where they were built.
std::vector<std::string> own_directories() {
  char path[4096];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  const std::string own =
      directory_above(std::string(path, length > 0 ? static_cast<std::size_t>(length) : 0));
  if (!own.ends_with("/control")) return {own};
  const std::string build = directory_above(own);
  return {own, build + "/process", build + "/runner"};
}

[[noreturn]] void become_daemon(const std::string& program, const site& place, int output) {
  const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (::dup2(input, 0) < 0 || ::dup2(output, 1) < 0 || ::dup2(output, 2) < 0) ::_exit(126);
  // What was set for our own purposes must not reach the programs.
  for (const int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGCHLD})
    ::signal(signal, SIG_DFL);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  for (const char* const name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID", "LISTEN_PID",
                                 "LISTEN_FDS", "LISTEN_FDNAMES"})
    ::unsetenv(name);
  ::setenv("PWD", place.directory.c_str(), 1);
  ::execl(program.c_str(), kDaemonName, nullptr);
  ::_exit(127);
}

int wait_for(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) == -1) {
    // Somebody reaps for us when SIGCHLD is ignored; the daemon's start says nothing by its status.
    if (errno != EINTR) return 0;
  }
  return status;
}

/// The lock that every start of the supervisor takes, too.
unique_fd lock_starts(const site& place) {
  unique_fd directory(::open(place.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  poll_until(kLongestStart, std::chrono::milliseconds(5), [&] {
    return !directory.valid() || ::flock(directory.get(), LOCK_EX | LOCK_NB) == 0;
  });
  return directory;
}

}  // namespace

std::string find_installed_program(const std::string& name) {
  std::vector<std::string> candidates = own_directories();
  const char* const path = std::getenv("PATH");
  std::istringstream listed(path == nullptr ? "" : path);
  for (std::string directory; std::getline(listed, directory, ':');)
    candidates.push_back(directory.empty() ? "." : directory);
  for (std::string& candidate : candidates) {
    candidate.append("/").append(name);
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  throw failure("there is no program " + name + " beside keelmondctl or in PATH: install it there");
}

void start_daemon(const std::string& program, const site& place) {
  const std::string console = place.directory + "/console.txt";
  const unique_fd output(::open(console.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (!output.valid()) throw failure("cannot write " + console + ": " + std::strerror(errno));
  const pid_t child = ::fork();
  if (child < 0) throw failure(std::string("cannot start a process: ") + std::strerror(errno));
  if (child == 0) become_daemon(program, place, output.get());
  const int status = wait_for(child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 127) throw failure("cannot run " + program);
}

bool remove_left_over_pid_file(const site& place) {
  const unique_fd lock = lock_starts(place);
  const proc_dir proc;
  const daemon_search search = find_daemon(proc, process_table(proc), place);
  if (search.daemon || !search.pid_file) return false;
  if (!search.hidden.empty()) {
    throw failure("run.pid may belong to a keelmond of another user (PID " +
                  std::to_string(search.hidden.front().pid) +
                  "). Try it as root, who can tell; nothing was started");
  }
  if (::unlink(place.pid_file().c_str()) != 0) {
    throw failure("cannot remove " + place.pid_file() +
                  ", which is left over: " + std::strerror(errno));
  }
  return true;
}

}  // namespace control
