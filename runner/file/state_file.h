#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// What a launcher tells of its program: notify/NAME.state below the supervisor's directory, with
/// lines "key value", and notify/NAME.ready, which holds "1" while the program is ready.
namespace runner {

/// Where a program stands.
enum class program_phase {
  reading,   ///< What a killed launcher left is being ended, before anything else.
  needs,     ///< It waits for other programs to be ready.
  before,    ///< The command `before` runs.
  starting,  ///< It runs and is not ready yet.
  running,   ///< It runs, and is ready.
  stopping,  ///< It is being ended.
  clearing,  ///< It has ended, and what it left behind is being ended.
  after,     ///< The command `after` runs.
  waiting,   ///< For the next start.
  ended,     ///< It has ended and is not started again.
  given_up,  ///< It could not be started, and is not tried again.
};

/// One word for each.
std::string_view phase_name(program_phase phase);

struct program_state {
  program_phase phase = program_phase::reading;
  std::int64_t since = 0;              ///< Of the phase, in milliseconds since 1970.
  pid_t pid = 0;                       ///< Of the program; 0 when it does not run.
  std::uint64_t started = 0;           ///< Of the program, in clock ticks since boot.
  std::uint64_t attempt = 0;           ///< Starts in a row that did not last, this one included.
  std::int64_t next = 0;               ///< The next start, in milliseconds since 1970; 0 for none.
  std::string status;                  ///< How it last ended: "exit 1", "signal KILL", or in words.
  std::string says;                    ///< What it says itself of its start; empty for nothing.
  std::string log;                     ///< The log file; empty when there is none.
  pid_t launcher = 0;                  ///< Who wrote this.
  std::uint64_t launcher_started = 0;  ///< In clock ticks since boot.
  std::string mark;                    ///< That the launcher's processes have.
};

/// As the file's text.
std::string print_state(const program_state& state);
/// @return nothing for a text that has no phase. Lines with keys that are not known are skipped.
std::optional<program_state> parse_state(std::string_view text);

/// The files of one program. Without a directory nothing is written and nothing is there.
class state_files final {
 public:
  /// @param directory that of the supervisor; empty when there is none.
  state_files(const std::string& directory, const std::string& name);

  /// Of the supervisor.
  [[nodiscard]] const std::string& directory() const { return directory_; }
  /// Replaces the state in one step. Failures are silent, as with liveness files.
  void write(const program_state& state) const;
  void set_ready(bool ready) const;
  /// Removes both.
  void remove() const;
  [[nodiscard]] std::optional<program_state> read() const;
  /// Whether the program is ready, and its launcher still there to say so.
  [[nodiscard]] bool is_ready() const;

 private:
  std::string directory_;
  std::string state_;
  std::string ready_;
};

}  // namespace runner
