#pragma once

#include <sys/types.h>

#include <optional>
#include <string_view>

#include "runner/log/steady_time.h"

namespace runner {

/// Where the text that comes out of one pipe is written.
class log_sink {
 public:
  log_sink() = default;
  log_sink(const log_sink&) = delete;
  log_sink& operator=(const log_sink&) = delete;
  virtual ~log_sink() = default;

  /// Takes the next piece of the output, which begins and ends anywhere. Until `waits_for` is -1
  /// again, the piece has to stay where it is, and there must not be another one.
  virtual void take(std::string_view text) = 0;
  /// Whether the last piece ended in the middle of a line.
  [[nodiscard]] virtual bool is_line_open() const = 0;
  /// What has to be writable before it goes on; -1 when it waits for nothing.
  [[nodiscard]] virtual int waits_for() const { return -1; }
  virtual void on_writable() {}
  /// As those of `program_log`.
  [[nodiscard]] virtual std::optional<time_point> next_deadline() const = 0;
  virtual void on_deadline() = 0;
  [[nodiscard]] virtual pid_t compressor() const { return 0; }
  virtual bool on_child_end(pid_t /*pid*/, int /*status*/) { return false; }
};

}  // namespace runner
