#include "control/site/daemon_search.h"

namespace control {

bool may_be_daemon(const process& one) {
  return one.threads > 1 && one.state != 'Z';
}

daemon_search find_daemon(const proc_dir& proc, const process_table& table, const site& place) {
  daemon_search found;
  const std::string path = place.pid_file();
  const std::optional<file_id> file = identify_file(path);
  found.pid_file = file.has_value();
  for (const process& one : table.all()) {
    if (!may_be_daemon(one)) continue;
    const proc_dir::hold hold = proc.holds(one.pid, path, file);
    if (hold == proc_dir::hold::none) continue;
    if (!found.daemon) {
      found.daemon = one;
      found.pid_file_lost = hold == proc_dir::hold::removed;
    } else if (found.pid_file_lost && hold == proc_dir::hold::present) {
      // Of several, the one with the present file is the one that others find.
      found.more.push_back(*found.daemon);
      found.daemon = one;
      found.pid_file_lost = false;
    } else {
      found.more.push_back(one);
    }
  }
  if (found.daemon) return found;
  for (const process& one : table.all()) {
    if (may_be_daemon(one) && one.name == kDaemonName && !proc.may_look_into(one.pid))
      found.hidden.push_back(one);
  }
  return found;
}

}  // namespace control
