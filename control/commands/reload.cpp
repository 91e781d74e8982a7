#include "control/commands/reload.h"

#include "control/site/reload.h"
#include "control/text/failure.h"

namespace control {

int run_reload(const session& here, const reload_options& options) {
  const snapshot now = here.look();
  const process daemon = need_daemon(here, now);
  if (!now.config) {
    throw failure("there is no " + here.place.config_file() +
                  " to read: without it keelmond shuts down. Put one there");
  }
  if (!reload(here.proc, daemon, here.place, options.timeout)) {
    throw failure("keelmond (PID " + std::to_string(daemon.pid) +
                  ") has been told to read its configuration and was not seen to do it in time. "
                  "See `keelmondctl check`, and whether it is yours to signal");
  }
  say("keelmond has read " + here.place.config_file());
  return exit_status::kDone;
}

}  // namespace control
