#pragma once

#include <chrono>
#include <string>

#include "control/proc/proc_dir.h"
#include "control/site/site.h"
#include "control/site/snapshot.h"
#include "control/text/terminal.h"

namespace control {

/// What every command works with.
struct session {
  site place;
  std::string command;  ///< Its name, in front of all that it says on standard error.
  proc_dir proc{};
  terminal out{};

  [[nodiscard]] snapshot look() const { return look_at(proc, place); }
};

/// Exit statuses; `status` and `check` have their own.
namespace exit_status {
inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;
inline constexpr int kUsage = 2;
}  // namespace exit_status

/// A line on standard error with the command's name: what happened although the command goes on.
/// What could steer a terminal is replaced, for names of processes are anybody's to choose.
void warn(const session& here, const std::string& text);
/// A line on standard output, likewise.
void say(const std::string& text);

/// @throws failure when a daemon may run here that this user cannot see: then nothing may be said
/// or done as if there were none.
void require_visible(const session& here, const daemon_search& search);

/// The daemon of the directory.
/// @throws failure when there is none, with what to do about it.
process need_daemon(const session& here, const snapshot& now);

}  // namespace control
