#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "control/proc/proc_dir.h"
#include "control/site/running_programs.h"

namespace control {

/// Stops programs: asks the programs themselves, waits for them and the daemon's children
/// above them, and as a last resort kills them with everything below them.
///
/// Remembers every process from the beginning, and takes hold of it only for as long as it takes to
/// reach that one and nobody else, so that thousands need no more descriptors than one.
class stopping final {
 public:
  stopping(const proc_dir& proc, std::vector<running_program> programs);

  /// Takes those that have been started since.
  void add(std::vector<running_program> programs);
  /// Sends the signal to the programs themselves, the last one first; each gets it once.
  void ask(int signal);
  /// Waits until the programs and the daemon's children above them have ended. @return whether they
  /// have.
  [[nodiscard]] bool wait(std::chrono::milliseconds limit) const;
  /// "NAME (PID n)" of those that have not.
  [[nodiscard]] std::vector<std::string> left() const;
  /// Kills what is left of them and everything that descends from them, also what was forked since
  /// they were found.
  void kill() const;

 private:
  [[nodiscard]] std::vector<process> freeze() const;

  const proc_dir& proc_;
  std::vector<running_program> members_;
  std::size_t asked_ = 0;  ///< How many of the members, from the first on.
};

}  // namespace control
