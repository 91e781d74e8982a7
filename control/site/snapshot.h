#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

#include "control/config/config_bytes.h"
#include "control/config/program_list.h"
#include "control/proc/proc_dir.h"
#include "control/proc/process_table.h"
#include "control/site/daemon_search.h"
#include "control/site/log_reader.h"
#include "control/site/running_programs.h"
#include "control/site/site.h"

namespace control {

/// What a daemon watches. Nothing, in the two seconds after a load.
struct config_watch {
  bool file = false;   ///< The file that now is the configuration.
  bool name = false;   ///< The directory that it is in, so that another file of that name is seen.
  bool other = false;  ///< A file that is no longer the configuration.

  /// Whether it would see another file being put in place of the present one.
  [[nodiscard]] bool sees_replacement() const { return file || name; }
  /// Whether it has been left behind and sees nothing any more.
  [[nodiscard]] bool is_lost() const { return other && !sees_replacement(); }
};

/// Shows nothing, too, when the daemon has ended or this user may not look into it.
config_watch look_at_watch(const proc_dir& proc, const process& daemon, const site& place);

/// One supervisor at about one moment: its daemon, its configuration, its processes.
struct snapshot {
  daemon_search search;
  /// Nothing when the file cannot be read; `config_error` then tells why, as errno does.
  std::optional<config_bytes> config;
  int config_error = 0;
  /// Each name once, refused entries too.
  std::vector<listed_program> programs;
  /// Below the daemon.
  std::vector<running_program> running;
  /// Of a daemon that is gone.
  std::vector<running_program> left_over;
  config_watch watch;
  /// Whom the daemon acts as, when it runs and may be asked.
  std::optional<uid_t> daemon_user;
  std::vector<gid_t> daemon_groups;
  double uptime = 0;           ///< Of the machine, in seconds.
  std::int64_t boot_time = 0;  ///< Seconds since 1970.

  /// How long the process has been running, in seconds.
  [[nodiscard]] double age_of(const process& one) const;
  /// When it was started, in seconds since 1970.
  [[nodiscard]] std::int64_t start_of(const process& one) const;
  [[nodiscard]] const listed_program* find(const std::string& name) const;
  /// The running program of that name; null when there is none.
  [[nodiscard]] const running_program* find_running(const std::string& name) const;
};

/// Looks at the supervisor of a directory.
snapshot look_at(const proc_dir& proc, const site& place);

/// Whether the daemon runs as another user than this process.
bool has_other_user(const snapshot& now);
/// Whether owner, groups and mode let the daemon's user do all of `what`, which is made of S_IROTH,
/// S_IWOTH and S_IXOTH. A file with an access control list is not judged: it may do all.
/// @param status the file's.
bool daemon_may(const snapshot& now, const std::string& path, const struct stat& status,
                mode_t what);

/// Whether the daemon takes the configuration for empty, because its user may not write the file.
bool counts_as_empty(const snapshot& now, const site& place);

/// Whether the log says that `child` was launched when it was started.
bool is_launched_by_log(const std::vector<log_event>& events, const process& child,
                        std::int64_t started);

}  // namespace control
