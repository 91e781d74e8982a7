#include "process/keelmond.h"

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

#include "common/daemon/sys_daemon.h"
#include "common/log/log_file.h"
#include "common/misc/console.h"
#include "common/misc/fun_misc.h"
#include "common/thread/leave_gate.h"
#include "common/thread/stack_size.h"
#include "common/version/fun_version.h"
#include "process/child.h"
#include "process/config_watcher.h"
#include "process/log_entry.h"
#include "process/recorder.h"
#include "process/server_config.h"
#include "process/start_lock.h"
#include "process/supervisor_signals.h"

namespace {

using std::chrono::milliseconds;

constexpr char kLogName[] = "keelmond.log";
constexpr char kPidName[] = "run.pid";

/// How long programs that were told to end are given to do so, all together.
constexpr milliseconds kGrace{1000};
/// How long a thread may be on its way out. It only writes a line or two; one that takes longer
/// hangs in the file system.
constexpr milliseconds kStand{1000};

/// Taken by `main`, given back by the daemon's body once the pid file is there.
start_lock g_start_lock;

/// Sees to it that descriptors 0, 1 and 2 are open. Otherwise the log would become one of them, and
/// console lines and the output of programs would end in it.
void open_standard_descriptors() {
  int fd = 0;
  do {
    fd = ::open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) ::close(fd);
}

/// Builds the path of the log.
/// @return false, with a line on standard error, when the working directory cannot be worked in:
///         there is none, or its name is too long for a buffer that is filled when we leave, too
///         late to complain.
bool build_log_path(char (&path)[512]) {
  char pid_path[256] = {};
  if (Tfun_misc::get_current_path(pid_path, kPidName)) {
    return Tfun_misc::get_current_path(path, kLogName);
  }
  std::fprintf(stderr,
               "keelmond: cannot work in this directory: it is gone, or its path is longer than "
               "%zu bytes. Nothing was started.\n",
               sizeof pid_path - sizeof kPidName - 1);
  return false;
}

void open_log(const char* path) {
  g_logFile = new Tlog_file;
  g_logFile->create_log_file(path, false);
  g_logFile->append_log("\r\n-------------333-------------------------------- Running\r\n", -1);
  char message[256] = {};
  std::snprintf(message, sizeof message, "keelmond Start PID: %lu \r\n",
                static_cast<unsigned long>(::getpid()));
  append_entry(message);
}

/// Becomes the daemon and runs its body. Returns in the daemon, when it has to end.
void run_daemon() {
  char directory[512] = {};
  Tfun_misc::get_current_path(directory, "/");
  ::signal(SIGCHLD, SIG_IGN);
  ::signal(SIGUSR1, signal_reload);
  ::signal(SIGUSR2, signal_exit);
  supervisor_signals::deliver();
  g_sys_daemon->init_daemon(directory);
  console::print_line("\ng_sys_daemon init_daemon \r");
}

void await_program_ends() {
  const auto end = std::chrono::steady_clock::now() + kGrace;
  while (Tfun_monitor::programs_alive() > 0 && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(milliseconds(1));
  }
}

template <typename T>
void delete_global(T*& object) {
  delete object;
  object = nullptr;
}

}  // namespace

void proc_start() {
  g_start_lock.release();
  set_default_stack_size(kLargeStack);
  child::start();
  recorder::start();
  // Whoever asks for the end before the first load gets it without a program having been started.
  supervisor_signals::deliver();
  try {
    loadServerConfig(kConfigPath);
  } catch (const std::exception& failure) {
    console::report_failure("loadServerConfig", failure.what());
  }
  // A SIGUSR1 that arrived until here goes to signal_reload, which does nothing. One that arrives
  // from here on waits for its new handler.
  supervisor_signals::deliver();
  monitorServerConfig(kConfigPath);
}

void proc_stop() {
  // A thread that has already asked whether it may launch is waited for; the others are told no.
  g_leave_gate.forbid_launches();
  g_leave_gate.wait_until_empty(kStand);
  for (Tfun_monitor* monitor : monitor_list)
    monitor->stop_process();
  await_program_ends();
  g_leave_gate.close();
  // What hangs in the file system still uses the monitors, the log and the utilities. They then go
  // with the process, at once: the handlers of `exit` would wait for the log's stream.
  if (!g_leave_gate.wait_until_empty(kStand) || !recorder::is_idle_within(kStand)) {
    std::atexit([] { ::_exit(0); });
    return;
  }

  for (Tfun_monitor* monitor : monitor_list) {
    monitor->settle_live_file();
    delete monitor;
  }
  monitor_list.clear();
  delete_global(g_sys_daemon);
  delete_global(g_fun_misc);
  if (!recorder::close_log()) std::atexit([] { ::_exit(0); });
}

void signal_reload(int sig) {
  Tsys_daemon::signal_reload(sig);
}

void signal_exit(int sig) {
  const supervisor_signals::handler_scope alone;
  proc_stop();
  // Both calls come after their objects are gone, and both are static for that reason: the pid
  // file has to be the last thing that goes.
  char path[256] = {};
  Tfun_misc::get_current_path(path, kPidName);
  Tsys_daemon::signal_exit(sig, path);
}

void sigint_interrupt(int /*sig*/) {
  const supervisor_signals::handler_scope alone;
  proc_stop();
  std::exit(0);
}

int main(int argc, char** argv) {
  // One heap for all threads: every further one is a mapping that each forked copy carries along.
  ::mallopt(M_ARENA_MAX, 1);
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
  // The path is the format itself, on purpose: who reads it here knows "%%" for a single "%".
  console::print_as_format(log_path);
  Tfun_misc::create_dir_by_filename(log_path);
  open_log(log_path);

  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGCHLD, SIG_IGN);
  ::signal(SIGINT, sigint_interrupt);

  g_sys_daemon = new Tsys_daemon(kPidName, proc_start);
  g_start_lock.acquire();
  if (g_sys_daemon->run_only_one()) run_daemon();
  proc_stop();
  return 0;
}
