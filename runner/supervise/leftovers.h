#pragma once

#include <utility>
#include <vector>

#include "runner/file/process_stat.h"
#include "runner/file/state_file.h"

namespace runner {

/// What a launcher left behind that was killed before it could end it.
///
/// That is whoever has its mark, whichever session it has made for itself; the session of its
/// program; and whatever these have started. Never this process, nor what stands above it.
class leftovers final {
 public:
  /// @param former what that launcher told last.
  explicit leftovers(program_state former) : former_(std::move(former)) {}

  [[nodiscard]] const program_state& former() const { return former_; }
  /// Kills what is there without waiting: call it until it finds nothing.
  /// @return whether there was anything.
  [[nodiscard]] bool kill() const;

 private:
  [[nodiscard]] bool is_left(const process_stat& one) const;
  [[nodiscard]] std::vector<process_stat> find() const;

  program_state former_;
};

}  // namespace runner
