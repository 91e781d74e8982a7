#include "control/commands/session.h"

#include <cstdio>
#include <string>

#include "control/text/failure.h"
#include "control/text/table.h"

namespace control {

void warn(const session& here, const std::string& text) {
  std::fflush(stdout);
  std::fprintf(stderr, "keelmondctl %s: %s\n", here.command.c_str(), printable(text).c_str());
}

void say(const std::string& text) {
  std::printf("%s\n", printable(text).c_str());
  std::fflush(stdout);
}

void require_visible(const session& here, const daemon_search& search) {
  // A daemon has a run.pid.
  if (search.daemon || search.hidden.empty() || !search.pid_file) return;
  throw failure("another user's keelmond may run in " + here.place.directory + " (PID " +
                std::to_string(search.hidden.front().pid) +
                "). Try it as that user, or as root; nothing was done");
}

process need_daemon(const session& here, const snapshot& now) {
  if (now.search.daemon) return *now.search.daemon;
  if (!now.search.hidden.empty()) {
    throw failure("no keelmond of this user runs in " + here.place.directory +
                  ", and there are some of other users (PID " +
                  std::to_string(now.search.hidden.front().pid) + "): try it as root");
  }
  throw failure("no keelmond runs in " + here.place.directory + ": start it with `keelmondctl up`");
}

}  // namespace control
