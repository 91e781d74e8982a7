#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "common/thread/sys_thread.h"
#include "process/monitor_phase.h"
#include "process/recorder.h"

/// Keeps one program running: starts it, waits until it ends, starts it again at once.
///
/// Idle: the state is not "run"; the thread looks at it once a second. Running: a child of the
/// supervisor has been forked that runs the program, and the thread waits for that child. Ended:
/// the program has ended more than 200000 times and the thread has returned; it is not started
/// again.
///
/// The loader creates monitors, starts them, writes their state and stops their programs, which the
/// shutdown does, too; all else is done by the monitor's own thread. The texts are bounded: one
/// that does not fit is cut, so callers refuse it before.
///
/// A monitor's thread is inside `g_shutdown_gate` from before its creation until after its last
/// touch of the object, except while it waits. So a monitor can be deleted once the gate is closed
/// and empty.
class Tfun_monitor final : public Tsys_thread {
 public:
  /// @param exepath the shell command that starts the program, up to 1023 bytes.
  /// @param name the program's name, up to 511 bytes.
  /// @param state "run", or any other text, up to 127 bytes.
  Tfun_monitor(const char* exepath, const char* name, const char* state);
  ~Tfun_monitor() override = default;
  Tfun_monitor(const Tfun_monitor&) = delete;
  Tfun_monitor& operator=(const Tfun_monitor&) = delete;

  /// Monitors lie in memory that children do not get.
  static void* operator new(std::size_t size);
  static void operator delete(void* memory, std::size_t size) noexcept;

  /// Starts the monitor's thread, unless it has one, or had one. The base's `Start` would create a
  /// second one while the first has not reached its body, and the program would run twice.
  void Start();

  /// Replaces the state. The thread acts on it the next time it looks.
  void update_state(const char* state);

  /// Sends SIGUSR2 to every process whose name matches the program's, with a shell command, and
  /// prints that command and its result. Does not touch the state or the thread.
  ///
  /// A program that is being launched is waited for first, about half a second at most, so that
  /// the command finds it. A command that takes longer than ten seconds, or is still running when a
  /// request to shut down is pending, is killed. When no command could do it, for want of processes
  /// or because it was killed, the signal goes to what runs below this monitor's own child instead.
  void stop_process();

  /// Removes the program's liveness file when the program does not run. For the shutdown, when the
  /// monitor's thread has parked: a reload marks every program alive that is to run, also one that
  /// has just ended and that nobody will launch any more.
  void remove_stale_live_file() const;

  /// The supervision loop, on the monitor's thread. Returns only at the restart limit.
  /// @param command the text that the program's child runs.
  void monitor_process(const char* command);

  [[nodiscard]] const char* program_name() const { return name; }
  /// Process id of the child started last; 0 until the first start. Never reset.
  [[nodiscard]] int last_pid() const;

  /// How many programs have been launched by any monitor and not been recorded as ended.
  static int programs_alive();

 protected:
  void virtual_thread_proc() override;

 private:
  // The thread's side.
  /// One turn of the loop up to a running program.
  /// @return the child's process id; 0 when the state was not "run" (a second has passed then), -1
  ///         when no process could be created.
  pid_t launch(const char* command);
  [[nodiscard]] bool wants_run() const;
  void record_launch(pid_t child);
  static pid_t wait_for_end(pid_t child, int& error);
  /// @return false at the restart limit.
  bool record_end(pid_t waited, int error);

  // The loader's side.
  void await_launch() const;
  void stop_directly() const;

  char name[512];
  char exepath[1024];
  /// Written by the loader, compared by the monitor's thread, byte by byte through
  /// std::atomic_ref, under `state_sequence`.
  char state[128];
  /// Written by the monitor's thread, read by the loader through std::atomic_ref.
  int pid;
  int restart_count;
  /// The sequence lock of the state: odd while it is being replaced, and another number afterwards.
  /// A text that is half replaced is never equal to "run".
  std::atomic<std::uint32_t> state_sequence{0};
  monitor_phase phase;
  /// Used by the monitor's thread only, and by the recorder.
  recorder::record last_record;
};
