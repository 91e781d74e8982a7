#include "process/lifecycle.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <exception>

#include "common/daemon/sys_daemon.h"
#include "common/log/console.h"
#include "common/log/log_file.h"
#include "common/misc/fun_misc.h"
#include "common/misc/poll_until.h"
#include "common/thread/event_count.h"
#include "common/thread/stack_size.h"
#include "common/thread/unforked_memory.h"
#include "process/child.h"
#include "process/config_watcher.h"
#include "process/recorder.h"
#include "process/server_config.h"
#include "process/shutdown_gate.h"
#include "process/supervisor_signals.h"

namespace {

using std::chrono::milliseconds;

/// How long programs that were told to stop are given to end, all together.
constexpr milliseconds kGrace{1000};
/// How long what is being written may take at the end. It is a line or two; what takes longer
/// hangs.
constexpr milliseconds kLastLines{1000};

/// What the libc allocates for ten thousand threads, and some more.
constexpr std::size_t kHeap = std::size_t{4} * 1024 * 1024;

void await_program_ends() {
  poll_until(kGrace, milliseconds(1), [] { return Tfun_monitor::programs_alive() == 0; });
}

/// Nothing can be run without the thread that forks, so the load waits for it. A request to shut
/// down is granted meanwhile.
void start_forking() {
  constexpr std::chrono::seconds kPause{1};
  if (child::start()) return;
  console::report_failure("keelmond", "no thread for starting programs; tried again every second");
  while (!child::start())
    supervisor_signals::wait_and_deliver(-1, kPause);
}

/// Has `exit` look at no stream: it would wait for the log's, which hangs.
void exit_without_streams() {
  std::atexit([] { ::_exit(0); });
}

template <typename T>
void delete_global(T*& object) {
  delete object;
  object = nullptr;
}

}  // namespace

void proc_start() {
  unforked_memory::add_static_objects();
  unforked_memory::add_heap(kHeap, g_logFile);
  set_default_stack_size(kLargeStack);
  event_count::use_common_table();
  start_forking();
  recorder::start();
  // A request to shut down that has come by now is granted before any program is started.
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
  g_shutdown_gate.forbid_launches();
  child::refuse_programs();
  g_shutdown_gate.wait_until_empty(kLastLines);
  for (Tfun_monitor* monitor : monitor_list)
    monitor->stop_process();
  await_program_ends();
  g_shutdown_gate.close();
  // A thread that hangs in the file system still uses the monitors, the log and the utilities. They
  // go with the process then.
  if (!g_shutdown_gate.wait_until_empty(kLastLines) || !recorder::wait_until_idle(kLastLines)) {
    exit_without_streams();
    return;
  }

  for (Tfun_monitor* monitor : monitor_list) {
    monitor->remove_stale_live_file();
    delete monitor;
  }
  monitor_list.clear();
  delete_global(g_sys_daemon);
  delete_global(g_fun_misc);
  if (!recorder::close_log()) exit_without_streams();
}

void signal_reload(int sig) {
  Tsys_daemon::signal_reload(sig);
}

void signal_exit(int sig) {
  proc_stop();
  // Both calls come after their objects are gone, and both are static for that reason: the pid
  // file has to be removed last of all.
  char path[256] = {};
  Tfun_misc::get_current_path(path, kPidFile);
  Tsys_daemon::signal_exit(sig, path);
}

void sigint_interrupt(int /*sig*/) {
  proc_stop();
  std::exit(0);
}
