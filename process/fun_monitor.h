#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "common/thread/sys_thread.h"
#include "process/recorder.h"

/// Keeps one program running: starts it, waits until it ends, starts it again at once.
///
/// Idle: the state is not "run"; the thread looks at it once a second. Running: a copy of the
/// supervisor has been forked that runs the program, and the thread waits for that copy. Ended: the
/// program has ended more than 200000 times and the thread has returned; nothing revives it.
///
/// The loader creates monitors, starts them and writes their state; the monitor's own thread does
/// everything else. The texts are bounded: one that does not fit is cut, so callers refuse it
/// before.
class Tfun_monitor final : public Tsys_thread {
 public:
  /// @param exepath the shell command that starts the program, up to 1023 bytes.
  /// @param name the program's name, up to 511 bytes.
  /// @param state "run", or any other text, up to 127 bytes.
  Tfun_monitor(const char* exepath, const char* name, const char* state);
  ~Tfun_monitor() override = default;
  Tfun_monitor(const Tfun_monitor&) = delete;
  Tfun_monitor& operator=(const Tfun_monitor&) = delete;

  /// Monitors lie in memory that forked copies do not get.
  static void* operator new(std::size_t size);
  static void operator delete(void* memory, std::size_t size) noexcept;

  /// Replaces the state. The thread acts on it the next time it looks.
  void update_state(const char* state);

  /// Sends SIGUSR2 to every process whose name matches the program's, with a shell command, and
  /// prints that command and its result. Does not touch the state or the thread.
  ///
  /// A program that is being launched is waited for first, about half a second at most, so that
  /// the command finds it. A command that takes longer than ten seconds, or is still running when a
  /// request to end is pending, is killed. When no command could do it, for want of processes or
  /// because it was killed, the signal goes to what runs below this monitor's own child instead.
  void stop_process();

  /// Removes the program's liveness file when the program does not run. A reload marks every
  /// program alive that shall run, also one that has just ended; this is for when nobody will
  /// launch it any more, and the monitor's thread stands still.
  void settle_live_file() const;

  /// The supervision loop, on the monitor's thread. Returns only at the restart limit.
  /// @param command the text that the program's copy runs.
  void monitor_process(const char* command);

  [[nodiscard]] const char* program_name() const { return name; }
  /// Process id of the copy started last; 0 until the first start. Never reset.
  [[nodiscard]] int last_pid() const;

  /// How many programs have been launched by any monitor and not been recorded as ended.
  static int programs_alive();

 protected:
  void virtual_thread_proc() override;

 private:
  [[nodiscard]] bool wants_run() const;
  /// One turn of the loop up to a running program.
  /// @return the copy's process id; 0 when the state was not "run" (a second has passed then), -1
  ///         when there was no process to be had.
  pid_t launch(const char* command);
  void record_launch(pid_t child);
  static pid_t wait_for_end(pid_t child, int& error);
  /// @return false at the restart limit.
  bool record_end(pid_t waited, int error);
  void await_launch() const;
  void stop_directly() const;

  static constexpr std::int64_t kNotLaunched = 0;
  static constexpr std::int64_t kLaunching = -1;

  char name[512];
  char exepath[1024];
  /// Written by the loader, compared by the monitor's thread, byte by byte through
  /// std::atomic_ref. `state_changes` tells whether the bytes belong together: a text that is half
  /// replaced is never equal to "run".
  char state[128];
  /// Written by the monitor's thread, read by the loader through std::atomic_ref.
  int pid;
  int restart_count;
  /// Counts each replacement of the state twice, when it begins and when it is over. Odd: one is
  /// under way.
  std::atomic<std::uint32_t> state_changes{0};
  /// When the launch of the program that runs was recorded, in nanoseconds of the steady clock;
  /// `kLaunching` from before the state is tested until then, `kNotLaunched` when none runs. In the
  /// default order, like the state: either the loader sees that a launch is going on, or the launch
  /// sees the loader's new state.
  std::atomic<std::int64_t> launched_at{kNotLaunched};
  /// Used by the monitor's thread only, and by the recorder.
  recorder::record last_record;
};
