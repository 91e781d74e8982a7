#include "common/daemon/sys_daemon.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <tuple>

#include "common/daemon/start_lock.h"
#include "common/log/console.h"
#include "common/misc/unique_fd.h"
#include "common/misc/unique_file.h"

Tsys_daemon* g_sys_daemon = nullptr;

namespace {

/// Joins the check for another instance and the creation of the pid file, which two starts at once
/// would otherwise both get through. Held by the process, not by the object: the daemon that gives
/// it back is the grandchild of the process that took it.
start_lock g_start_lock;

/// Goes on in a child. The parent ends, and so does a process that cannot fork: to whoever waits
/// for it both look the same, a status of 0.
void continue_in_child() {
  if (::fork() != 0) std::exit(0);
}

/// The process id in the text of a pid file; 0 when there is none.
pid_t parse_pid(const char* text) {
  const long number = std::strtol(text, nullptr, 10);
  return number > 0 && number <= INT_MAX ? static_cast<pid_t>(number) : 0;
}

/// A file name for system calls; an empty one names nothing.
const char* text_or_empty(const char* text) {
  return text == nullptr ? "" : text;
}

}  // namespace

Tsys_daemon::Tsys_daemon(const char* file, void (*body)())
    : pid_file(text_or_empty(file)), daemon_proc(body) {}

bool Tsys_daemon::run_only_one() {
  g_start_lock.acquire();
  if (::access(pid_file, R_OK) != 0) return true;
  g_start_lock.release();
  send_signal();
  console::print_line("Existing a copy of this daemon! ");
  return false;
}

void Tsys_daemon::send_signal() {
  unique_fd file(::open(pid_file, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.valid()) return;
  constexpr std::size_t kMostRead = 128;
  char text[kMostRead + 1] = {};
  if (::read(file.get(), text, kMostRead) <= 0) {
    // The empty file of a running daemon stays open until this process ends, which is all that is
    // left for it to do.
    file.release();
    return;
  }
  const pid_t pid = parse_pid(text);
  if (pid != 0) ::kill(pid, SIGUSR1);
}

void Tsys_daemon::init_daemon(const char* dir) {
  continue_in_child();
  ::setsid();
  continue_in_child();

  // Where that fails the daemon stays where it was started, which is the same directory.
  std::ignore = ::chdir(text_or_empty(dir));
  ::umask(0);
  const pid_t pid = ::getpid();
  if (pid <= 0) return;

  std::remove(pid_file);
  const unique_file stream(std::fopen(pid_file, "we"));
  g_start_lock.release();
  if (!stream) return;
  if (daemon_proc != nullptr) daemon_proc();
  // Only now: as long as the daemon runs, others find its file empty.
  std::fprintf(stream.get(), "%d", pid);
}

void Tsys_daemon::signal_reload(int /*sig*/) {}

void Tsys_daemon::signal_exit(int /*sig*/, const char* path) {
  std::remove(text_or_empty(path));
  std::exit(0);
}
