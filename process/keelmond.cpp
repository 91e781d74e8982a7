#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "common/daemon/sys_daemon.h"
#include "common/log/console.h"
#include "common/log/log_file.h"
#include "common/misc/fun_misc.h"
#include "common/version/fun_version.h"
#include "process/lifecycle.h"
#include "process/recorder.h"
#include "process/supervisor_signals.h"

namespace {

constexpr char kLogName[] = "keelmond.log";

/// Sees to it that descriptors 0, 1 and 2 are open. Otherwise the log would become one of them, and
/// console lines and the output of programs would end up in it.
void open_standard_descriptors() {
  int fd = 0;
  do {
    fd = ::open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) ::close(fd);
}

/// Builds the path of the log.
/// @return false, with a line on standard error, when the working directory is gone, or its path is
///         too long for the buffer that the shutdown fills: then it would be too late to complain.
bool build_log_path(char (&path)[512]) {
  char pid_path[256] = {};
  if (Tfun_misc::get_current_path(pid_path, kPidFile)) {
    return Tfun_misc::get_current_path(path, kLogName);
  }
  std::fprintf(stderr,
               "keelmond: cannot work in this directory: it is gone, or its path is longer than "
               "%zu bytes. Nothing was started.\n",
               sizeof pid_path - sizeof kPidFile - 1);
  return false;
}

void open_log(const char* path) {
  g_logFile = new Tlog_file;
  g_logFile->create_log_file(path, false);
  g_logFile->append_log("\r\n-------------333-------------------------------- Running\r\n", -1);
  char message[256] = {};
  std::snprintf(message, sizeof message, "keelmond Start PID: %lu \r\n",
                static_cast<unsigned long>(::getpid()));
  recorder::append(message);
}

/// Becomes the daemon and runs its body. Returns in the daemon, when it is to shut down.
void run_daemon() {
  char directory[512] = {};
  Tfun_misc::get_current_path(directory, "/");
  // As `main` has done; the second time changes nothing.
  ::signal(SIGCHLD, SIG_IGN);
  supervisor_signals::handle(SIGUSR1, signal_reload);
  supervisor_signals::handle(SIGUSR2, signal_exit);
  supervisor_signals::deliver();
  g_sys_daemon->init_daemon(directory);
  console::print_line("\ng_sys_daemon init_daemon \r");
}

}  // namespace

int main(int argc, char** argv) {
#ifdef M_ARENA_MAX
  // One heap for all threads, where a libc would make several: each is a mapping that every child
  // carries along.
  ::mallopt(M_ARENA_MAX, 1);
#endif
  open_standard_descriptors();
  supervisor_signals::block();
  console::open();

  console::print_line("keelmond --------------------------111----------------------------------\r");
  const Tfun_version version("Tessaly Process Monitor");
  if (version.AnalyzeParam(argc, argv) != 0) return 0;

  g_fun_misc = new Tfun_misc;
  console::print_line("keelmond ----------------------222--------------------------------------\r");
  char log_path[512] = {};
  if (!build_log_path(log_path)) return 0;
  // The path is the format itself, which is part of the interface: "%%" in it shows as "%".
  console::print_as_format(log_path);
  Tfun_misc::create_dir_by_filename(log_path);
  open_log(log_path);

  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGCHLD, SIG_IGN);
  supervisor_signals::handle(SIGINT, sigint_interrupt);

  g_sys_daemon = new Tsys_daemon(kPidFile, proc_start);
  if (g_sys_daemon->run_only_one()) run_daemon();
  proc_stop();
  return 0;
}
