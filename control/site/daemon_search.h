#pragma once

#include <optional>
#include <string>
#include <vector>

#include "control/proc/proc_dir.h"
#include "control/proc/process_table.h"
#include "control/site/site.h"

namespace control {

/// What is known of the daemon of a directory.
struct daemon_search {
  /// The process that holds the directory's run.pid open, as the user who has made that file. Its
  /// children have given it up, and they have one thread; the daemon has several.
  std::optional<process> daemon;
  /// Further ones, which there are when somebody deleted run.pid and started again.
  std::vector<process> more;
  /// Whether there is a file of that name, held or left over.
  bool pid_file = false;
  /// Whether the file that the daemon holds is no longer the one of that name.
  bool pid_file_lost = false;
  /// Processes that have the daemon's name and threads, and that this user may not look into. Asked
  /// for only when no daemon was found.
  std::vector<process> hidden;
};

/// The name that a supervisor's processes have.
inline constexpr char kDaemonName[] = "keelmond";

/// Whether it has the threads that a daemon has and its children have not, and is not one that was
/// killed and some of whose threads are still there.
bool may_be_daemon(const process& one);

/// Looks through all processes for the daemon of a directory. What this user may not look into is
/// passed over, or `hidden`.
daemon_search find_daemon(const proc_dir& proc, const process_table& table, const site& place);

}  // namespace control
