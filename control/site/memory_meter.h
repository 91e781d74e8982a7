#pragma once

#include <sys/types.h>

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "control/proc/proc_dir.h"
#include "control/site/program_status.h"

namespace control {

/// Measures the memory of programs: the proportional set size of everything in their trees.
///
/// For that the kernel goes through all the pages of a process, which takes longer than all else
/// that is asked about it. Whoever looks again and again keeps the meter: a process whose resident
/// size has not changed is measured anew at every tenth look only, since others may have begun or
/// ceased to share its pages.
class memory_meter final {
 public:
  void measure(const proc_dir& proc, std::vector<program_status>& programs);

 private:
  struct measured {
    process who;
    std::uint64_t bytes = 0;
    int looks = 0;  ///< Since it was measured.
  };

  [[nodiscard]] bool is_due(const process& one) const;

  /// What the last look was about.
  std::unordered_map<pid_t, measured> known_;
};

}  // namespace control
