#include "control/site/reload.h"

#include <algorithm>
#include <csignal>
#include <optional>

#include "control/config/config_save.h"
#include "control/proc/process_handle.h"
#include "control/site/load_watch.h"
#include "control/site/snapshot.h"

namespace control {
namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

/// How long a daemon that watches may take to begin with a file that was put in place: it is told
/// at once. When somebody else holds the old file open it is not told at all.
constexpr milliseconds kSeen{400};
/// A signal that comes while the daemon starts up is lost, so it is sent again now and then.
constexpr milliseconds kAgain{1000};

bool send_until_loaded(load_watch& watch, const process_handle& daemon, const proc_dir& proc,
                       steady::time_point end) {
  for (;;) {
    const auto left = std::chrono::duration_cast<milliseconds>(end - steady::now());
    if (left.count() <= 0) return false;
    // A load with many stop commands takes its time; a further signal would begin another one.
    if (watch.has_begun()) return watch.wait(left);
    // One that is still pending need not be sent again, and counts once anyway.
    if (!proc.is_pending(daemon.who().pid, SIGUSR1) && !daemon.send(SIGUSR1)) return false;
    if (watch.wait(std::min(left, kAgain))) return true;
  }
}

}  // namespace

bool reload(const proc_dir& proc, const process& daemon, const site& place, milliseconds limit) {
  const process_handle handle(proc, daemon);
  load_watch watch(proc, daemon, place.config_file());
  return send_until_loaded(watch, handle, proc, steady::now() + limit);
}

bool save_and_load(const proc_dir& proc, const process& daemon, const site& place,
                   std::string_view text, const config_bytes& before, milliseconds limit) {
  const auto end = steady::now() + limit;
  const process_handle handle(proc, daemon);
  std::optional<load_watch> watch;
  const bool will_see = look_at_watch(proc, daemon, place).sees_replacement();
  save_config(place.config_file(), text, before,
              [&](const std::string& path) { watch.emplace(proc, daemon, path); });
  if (will_see && watch->wait(kSeen)) return true;
  return send_until_loaded(*watch, handle, proc, end);
}

}  // namespace control
