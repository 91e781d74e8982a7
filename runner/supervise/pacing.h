#pragma once

#include <cstdint>

#include "runner/file/program_file.h"
#include "runner/log/steady_time.h"

namespace runner {

/// How long to wait before the next start.
///
/// The pause is `delay` at first and twice as long each time that the program lived less than
/// `steady`, up to `longest`. One steady life, and it begins again. Knows no clock: it is told what
/// time it is.
class pacing final {
 public:
  struct verdict {
    bool give_up = false;
    milliseconds pause{0};
  };

  /// Takes over what the file says now; what has been counted stays.
  void set(const restart_section& wanted) { wanted_ = wanted; }
  void started(time_point now) { started_ = now; }
  /// The attempt is over, however far it came.
  verdict ended(time_point now);

  /// Short lives in a row.
  [[nodiscard]] std::uint64_t failures() const { return failures_; }
  [[nodiscard]] time_point start() const { return started_; }

 private:
  restart_section wanted_;
  time_point started_;
  std::uint64_t failures_ = 0;
};

}  // namespace runner
