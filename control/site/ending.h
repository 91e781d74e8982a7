#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "control/proc/proc_dir.h"
#include "control/proc/process_handle.h"
#include "control/site/running_programs.h"

namespace control {

/// Ends programs: asks the programs themselves, waits for them and their copies, and as a last
/// resort kills them with everything below them.
///
/// Holds on to every process from the beginning, so that nobody else is ever hit. Programs that
/// are started meanwhile are not among them.
class ending final {
 public:
  ending(const proc_dir& proc, const std::vector<running_program>& programs);

  /// Sends the signal to the programs themselves, the last one first.
  void ask(int signal) const;
  /// Waits until the programs and their copies have ended. @return whether they have.
  [[nodiscard]] bool wait(std::chrono::milliseconds limit) const;
  /// "NAME (PID n)" of those that have not.
  [[nodiscard]] std::vector<std::string> left() const;
  /// Kills what is left of them and of everything that descended from them.
  void kill() const;

 private:
  struct member {
    std::string name;
    process_handle copy;
    std::vector<process_handle> tree;
    std::size_t program;  ///< Which of the tree; its size when there is none yet.
  };
  std::vector<member> members_;
};

}  // namespace control
