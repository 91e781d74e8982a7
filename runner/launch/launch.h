#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "common/misc/unique_fd.h"
#include "runner/file/program_file.h"

/// How a program is started: everything between a fork and its first instruction.
///
/// What the program gets is exactly this: default signals and an empty mask, /dev/null as
/// descriptor 0, its output as 1 and 2 and no other descriptor, a session of its own without a
/// terminal, and what its file says. The order is that of power: first what only root may do (nice,
/// OOM score, limits, control group), then the directory, then groups, group and user for good, and
/// at last what the kernel forgets when the user changes (SIGKILL when the launcher dies) and what
/// cannot be undone (no new privileges).
namespace runner {

/// What a start failed in.
enum class launch_step : unsigned char {
  none,
  process,  ///< There was no process or pipe for it.
  descriptors,
  nice,
  oom_score,
  limit,
  control_group,
  directory,
  groups,  ///< The supplementary ones.
  group,
  user,
  death_signal,
  privileges,
  command,
};

struct launch_failure {
  launch_step step = launch_step::none;
  int error = 0;            ///< As errno.
  unsigned char limit = 0;  ///< Which of the limits, in the order of the file.
};

struct launch_order {
  const command_words& words;
  const program_file& file;
  /// As `build_environment` made it.
  const std::vector<std::string>& environment;
  int output = 1;
  int errors = 2;
  /// What to write "0" to in order to enter a control group; empty for none.
  std::string group_entrance = {};
  /// Where `words` stand in the file.
  const char* section = "program";
  const char* key = "command";
};

struct launched {
  pid_t pid = -1;
  /// Readable as soon as it is known whether the command was executed.
  unique_fd report;
  launch_failure failure;  ///< When there is no process.
};

/// Starts one. This process has to have one thread, SIGCHLD at its default, and no descriptor that
/// is not close-on-exec.
launched launch(const launch_order& order);

/// What the process says that was to become the program; to be asked once `report` is readable.
/// @return step none when the command was executed.
launch_failure read_report(int report);

/// A failure as a finding about the file: line, key, what is wrong.
file_finding describe(const launch_failure& failure, const launch_order& order);

}  // namespace runner
