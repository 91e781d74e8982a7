#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace control {

/// One thing that the daemon has noted.
struct log_event {
  enum class kind {
    supervisor_started,  ///< `pid` is that of the process that was started, not the daemon's.
    supervisor_ended,    ///< It closed its log.
    launched,            ///< `pid` is that of the daemon's child.
    ended,
    not_executable,
    refused,
    other,
  };

  kind what = kind::other;
  /// Local time as the log has it, "2026-11-15 10:02:03"; empty when it was never written.
  std::string time;
  pid_t pid = 0;
  /// The program's name or path, where the message has one.
  std::string program;
  /// The message without its line end.
  std::string message;
};

/// Puts messages and the times that follow them together again.
///
/// The two are separate writes, so with several programs the pieces mix. The oldest message
/// without a time is the one that a time belongs to.
class log_parser final {
 public:
  /// Takes a piece of the log that follows the last one. Lines may be cut anywhere.
  void feed(std::string_view piece);
  /// Events that are complete, in their order; each is given out once.
  std::vector<log_event> take();
  /// Says that nothing more comes: messages without a time are complete now.
  void finish();

 private:
  void take_line(std::string_view line);
  void give_up_waiting();

  std::string rest_;
  std::string last_time_;
  std::deque<log_event> waiting_;
  std::vector<log_event> complete_;
};

/// The time of an event in seconds since 1970; 0 when it has none.
std::int64_t seconds_of(const log_event& event);

/// How many programs a log says were started and have ended.
struct log_counts {
  std::uint64_t launched = 0;
  std::uint64_t ended = 0;
};
/// Zeros when the log cannot be read.
log_counts count_events(const std::string& path);

/// The last events of a log, from its last `bytes` on. None when it cannot be read.
std::vector<log_event> read_last_events(const std::string& path, std::int64_t bytes);

}  // namespace control
