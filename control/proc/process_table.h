#pragma once

#include <sys/types.h>

#include <vector>

#include "control/proc/proc_dir.h"
#include "control/proc/process.h"

namespace control {

/// All processes of the machine at about one moment, and who descends from whom. Zombies are left
/// out: they have ended.
///
/// Immutable once it is read. Processes start and end while it is being read, so a process may be
/// missing its parent or its children.
class process_table final {
 public:
  explicit process_table(const proc_dir& proc);
  explicit process_table(std::vector<process> processes);
  process_table(process_table&&) = default;
  process_table(const process_table&) = delete;
  process_table& operator=(process_table&&) = default;
  process_table& operator=(const process_table&) = delete;
  ~process_table() = default;

  /// In the order of their ids.
  [[nodiscard]] const std::vector<process>& all() const { return processes_; }
  /// Null when there is none with that id.
  [[nodiscard]] const process* find(pid_t pid) const;
  /// In the order in which they were started.
  [[nodiscard]] std::vector<const process*> children(pid_t pid) const;
  /// `pid` itself and everything below it, parents before their children.
  [[nodiscard]] std::vector<const process*> tree(pid_t pid) const;

 private:
  void index();

  std::vector<process> processes_;
  /// By parent, then by start.
  std::vector<const process*> by_parent_;
};

}  // namespace control
