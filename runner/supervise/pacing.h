#pragma once

#include <cstdint>
#include <optional>

#include "runner/file/program_file.h"

namespace runner {

/// How long to wait before the next start.
///
/// The pause is `delay` at first and twice as long each time that the program lived less than
/// `steady`, up to `longest`. One steady life, and it begins again. What comes before a life, and
/// how long that takes, does not count. Knows no clock.
class pacing final {
 public:
  struct verdict {
    bool give_up = false;
    milliseconds pause{0};
  };

  /// Takes over what the file says now; what has been counted stays.
  void set(const restart_section& wanted) { wanted_ = wanted; }
  /// The attempt is over. @param lived how long the program did; nothing when it was not executed.
  verdict ended(std::optional<milliseconds> lived);

  /// Short lives in a row.
  [[nodiscard]] std::uint64_t failures() const { return failures_; }

 private:
  restart_section wanted_;
  std::uint64_t failures_ = 0;
};

}  // namespace runner
