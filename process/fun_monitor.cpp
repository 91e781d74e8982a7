#include "process/fun_monitor.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>

#include "common/log/console.h"
#include "common/misc/bounded_text.h"
#include "common/misc/fun_misc.h"
#include "common/thread/unforked_memory.h"
#include "process/child.h"
#include "process/program_tree.h"
#include "process/recorder.h"
#include "process/shutdown_gate.h"
#include "process/supervisor_signals.h"

namespace {

/// The message says 200 and the limit is 200000. Both are part of the interface.
constexpr int kRestartLimit = 200000;

constexpr std::size_t kMessageSize = 256;

/// How long a stop command may take. With ten thousand programs one takes about a second.
constexpr std::chrono::seconds kStopLimit{10};

/// Programs launched and not yet recorded as ended, of all monitors.
[[gnu::section("unforked")]] constinit unforked_memory::static_object<std::atomic<int>> alive;

/// Whether a stop command has got as far as its signal. The shell's status is 0 then, or 1 when
/// one of the processes had just ended or is another user's. Any other means that it could not run
/// `pgrep`, or that this found nothing.
bool has_signalled(const child::command_end& end) {
  return end.what == child::outcome::ended && WIFEXITED(end.status) && WEXITSTATUS(end.status) <= 1;
}

void store_byte(char& byte, char value) {
  std::atomic_ref<char>(byte).store(value);
}

char load_byte(const char& byte) {
  return std::atomic_ref<char>(const_cast<char&>(byte)).load();
}

}  // namespace

void* Tfun_monitor::operator new(std::size_t size) {
  void* const memory = unforked_memory::allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void Tfun_monitor::operator delete(void* memory, std::size_t size) noexcept {
  unforked_memory::release(memory, size);
}

Tfun_monitor::Tfun_monitor(const char* command, const char* program, const char* wanted)
    : pid(0), restart_count(0) {
  copy_bounded(exepath, command);
  copy_bounded(name, program);
  copy_bounded(state, wanted);
}

// The thread's side.

void Tfun_monitor::virtual_thread_proc() {
  // It counts itself out after the base's last touch of the object.
  g_shutdown_gate.dismiss_at_thread_end();
  monitor_process(exepath);
  phase.end();
}

void Tfun_monitor::monitor_process(const char* command) {
  for (;;) {
    const pid_t child = launch(command);
    if (child <= 0) continue;
    int error = 0;
    const pid_t waited = wait_for_end(child, error);
    if (!record_end(waited, error)) return;
  }
}

pid_t Tfun_monitor::launch(const char* command) {
  phase.launch();
  if (!wants_run()) {
    phase.rest();
    const shutdown_gate::outside pause(g_shutdown_gate);
    Tfun_misc::select_sleep(1, 0);
    return 0;
  }
  if (!g_shutdown_gate.may_launch()) {
    phase.rest();
    g_shutdown_gate.park();
  }
  const pid_t child = child::start_program(command);
  if (child > 0) {
    record_launch(child);
    return child;
  }
  // Tried again at once and for as long as it takes: a pause would only add to the outage.
  const int error = errno;
  phase.rest();
  if (child == -1) {
    console::print("fork() error.errno:%d error:%s\n", error, std::strerror(error));
  }
  return child;
}

bool Tfun_monitor::wants_run() const {
  constexpr char kRun[] = "run";
  const std::uint32_t before = state_sequence.load();
  if (before % 2 != 0) return false;
  for (std::size_t i = 0; i < sizeof kRun; ++i) {
    if (load_byte(state[i]) != kRun[i]) return false;
  }
  // The bytes are those of one text only if nothing has changed meanwhile.
  return state_sequence.load() == before;
}

void Tfun_monitor::record_launch(pid_t child) {
  std::atomic_ref<int>(pid).store(child);
  phase.run();
  alive->fetch_add(1);
  char message[kMessageSize] = {};
  std::snprintf(message, sizeof message, "launched sub process PID: %lu \r\n",
                static_cast<unsigned long>(static_cast<std::uint32_t>(child)));
  recorder::record_launch(last_record, name, message);
}

pid_t Tfun_monitor::wait_for_end(pid_t child, int& error) {
  // Nothing of the object is touched from here on: it may be deleted during the wait.
  const shutdown_gate::outside waiting(g_shutdown_gate);
  int status = 0;
  for (;;) {
    // A child that is only stopped counts as ended, which is part of the interface: its program is
    // started once more, and the stopped one stays.
    const pid_t waited = ::waitpid(child, &status, WUNTRACED);
    error = errno;
    if (waited != -1 || error != EINTR) return waited;
  }
}

bool Tfun_monitor::record_end(pid_t waited, int error) {
  char message[kMessageSize] = {};
  std::snprintf(message, sizeof message, "exited process PID: %lu  errno: %d\r\n",
                static_cast<unsigned long>(static_cast<std::uint32_t>(waited)), error);
  recorder::record_end(last_record, name, message);
  phase.rest();
  alive->fetch_sub(1);
  if (++restart_count > kRestartLimit) {
    console::print("Restarted more than 200 times.\r\n");
    return false;
  }
  console::print("Waiting has returned.\r\n");
  return true;
}

// The loader's side.

void Tfun_monitor::Start() {
  if (!phase.claim()) return;
  g_shutdown_gate.admit();
  Tsys_thread::Start();
  if (has_thread()) return;
  g_shutdown_gate.dismiss();
  phase.give_back();
}

void Tfun_monitor::update_state(const char* wanted) {
  char text[sizeof state];
  copy_bounded(text, wanted);
  // A reload that changes nothing must not let the thread see anything but "run".
  if (std::strcmp(state, text) == 0) return;
  state_sequence.fetch_add(1);
  for (std::size_t i = 0; i < sizeof state; ++i)
    store_byte(state[i], text[i]);
  state_sequence.fetch_add(1);
}

int Tfun_monitor::last_pid() const {
  return std::atomic_ref<int>(const_cast<int&>(pid)).load();
}

int Tfun_monitor::programs_alive() {
  return alive->load();
}

void Tfun_monitor::await_launch() const {
  constexpr std::chrono::milliseconds kLongest{500};
  const auto end = monitor_phase::clock::now() + kLongest;
  const auto may_be_missed = [&] {
    if (phase.is_launching()) return true;
    return phase.is_running() && phase.running_for() < kLongest &&
           !program_tree::has_its_name(last_pid());
  };
  while (may_be_missed() && monitor_phase::clock::now() < end)
    Tfun_misc::select_sleep(0, 2000);
}

void Tfun_monitor::stop_process() {
  await_launch();
  char command[kMessageSize] = {};
  const int length = std::snprintf(command, sizeof command, "kill -USR2 `pgrep %s`", name);
  // A command that was cut would signal other programs.
  if (length >= static_cast<int>(sizeof command)) return;
  const child::command_end end =
      child::run_command(command, kStopLimit, supervisor_signals::shutdown_is_pending);
  if (end.what == child::outcome::given_up) {
    console::print("keelmond: the stop command of %s did not end and was killed.\r\n", name);
  }
  if (!has_signalled(end)) stop_directly();
  console::print("kill -USR2 result: %s, %d \r\n", command, end.result);
}

void Tfun_monitor::stop_directly() const {
  // Otherwise the child has ended, and another process may have its number.
  if (phase.is_running()) program_tree::signal_by_name(last_pid(), name, SIGUSR2);
}

void Tfun_monitor::remove_stale_live_file() const {
  if (!phase.is_launching() && !phase.is_running()) Tfun_misc::UpdateProcessLiveFile(name, false);
}
