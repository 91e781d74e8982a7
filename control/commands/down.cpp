#include "control/commands/down.h"

#include <csignal>
#include <string>
#include <thread>
#include <tuple>

#include "control/proc/deadline.h"
#include "control/proc/process_handle.h"
#include "control/site/stopping.h"
#include "control/text/failure.h"

namespace control {
namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

constexpr milliseconds kLookEvery{2};
/// How long what was killed may take to be gone.
constexpr milliseconds kKilled{5000};

std::vector<running_program> everything(const snapshot& now) {
  std::vector<running_program> programs = now.running;
  programs.insert(programs.end(), now.left_over.begin(), now.left_over.end());
  return programs;
}

/// Waits until the daemon has begun to shut down. Before that it would start a program that ends
/// anew.
bool wait_shutdown_begun(const session& here, const process_handle& daemon,
                         steady::time_point end) {
  while (here.proc.is_pending(daemon.who().pid, SIGUSR2) && !daemon.has_ended()) {
    if (steady::now() >= end) return false;
    std::this_thread::sleep_for(kLookEvery);
  }
  return true;
}

/// @param was_killed all of it, so that nothing more can be done than wait for the kernel.
int report(const session& here, const std::vector<std::string>& left, bool daemon_left,
           bool was_killed) {
  const std::string waits = " was killed and has not ended: it waits for the kernel";
  for (const std::string& one : left)
    warn(here, one + (was_killed ? waits : " has not ended: `keelmondctl down --kill` kills it"));
  if (daemon_left) {
    warn(here,
         "keelmond itself" +
             (was_killed ? waits : " is still shutting down: ask again with `keelmondctl status`"));
  }
  if (!left.empty() || daemon_left) return exit_status::kFailed;
  say("keelmond and its programs have ended in " + here.place.directory);
  return exit_status::kDone;
}

int kill_rest(const session& here, const stopping& programs, const process_handle& daemon) {
  for (const std::string& one : programs.left())
    say("killing " + one);
  if (daemon.valid() && !daemon.has_ended()) {
    // It is shutting down, and has nothing to wait for once its programs are gone.
    programs.kill();
    if (!daemon.wait_end(kKilled)) {
      say("killing keelmond (PID " + std::to_string(daemon.who().pid) + ")");
      std::ignore = daemon.send(SIGKILL);
    }
  }
  programs.kill();
  const bool ended = programs.wait(kKilled) && (!daemon.valid() || daemon.wait_end(kKilled));
  return report(here, programs.left(), !ended && daemon.valid() && !daemon.has_ended(), true);
}

int shut_down(const session& here, const snapshot& now, const down_options& options) {
  if (!now.search.daemon && now.left_over.empty()) {
    // What was asked for is so, unless it may be somebody else's.
    if (!now.search.hidden.empty()) need_daemon(here, now);
    say("no keelmond runs in " + here.place.directory);
    return exit_status::kDone;
  }
  const auto end = steady::now() + options.timeout;
  const process_handle daemon(here.proc, now.search.daemon.value_or(process{}));
  if (now.search.daemon && !daemon.send(SIGUSR2) && !daemon.has_ended()) {
    throw failure("keelmond (PID " + std::to_string(daemon.who().pid) +
                  ") is another user's: try it as root");
  }
  // At once, for until they have ended the daemon's search for each goes through all of them.
  stopping all(here.proc, everything(now));
  const bool shuts_down = wait_shutdown_begun(here, daemon, end);
  if (shuts_down) all.ask(SIGUSR2);
  // What it has started between the look and its shutdown.
  all.add(everything(here.look()));
  if (shuts_down) all.ask(SIGUSR2);

  const bool daemon_ended = daemon.wait_end(left_until(end));
  const bool ended = all.wait(left_until(end));
  if (ended && daemon_ended) return report(here, {}, false, false);
  return options.kill ? kill_rest(here, all, daemon)
                      : report(here, all.left(), !daemon_ended, false);
}

}  // namespace

int run_down(const session& here, const down_options& options) {
  const snapshot now = here.look();
  const int status = shut_down(here, now, options);
  for (const process& other : now.search.more) {
    warn(here, "another keelmond runs here as well (PID " + std::to_string(other.pid) +
                   "): `keelmondctl down` again shuts it down");
  }
  return now.search.more.empty() ? status : exit_status::kFailed;
}

}  // namespace control
