#include <nlohmann/json.hpp>

#include "control/commands/status_report.h"
#include "control/text/quantity.h"

namespace control {
namespace {

using nlohmann::ordered_json;

ordered_json json_of(const program_status& one, const snapshot& now) {
  ordered_json program = {
      {"name", one.name},
      {"wanted", one.wanted.empty() ? ordered_json() : ordered_json(one.wanted)},
      {"actual", name_of(one.now)},
      {"why", one.why.empty() ? ordered_json() : ordered_json(one.why)},
      {"pid", ordered_json()},
      {"started_at", ordered_json()}};
  if (one.program) {
    program["pid"] = one.program->pid;
    program["started_at"] = format_utc(now.start_of(*one.program));
  }
  program["launcher_pid"] = one.launcher ? ordered_json(one.launcher->pid) : ordered_json();
  program["child_pid"] = one.child ? ordered_json(one.child->pid) : ordered_json();
  program["cpu_seconds"] = one.cpu_seconds;
  program["memory_bytes"] = one.memory;
  program["processes"] = one.tree.size();
  return program;
}

ordered_json daemon_json(const session& here, const snapshot& now) {
  const daemon_search& search = now.search;
  ordered_json daemon = {{"running", search.daemon.has_value()},
                         {"pid", ordered_json()},
                         {"started_at", ordered_json()},
                         {"directory", here.place.directory},
                         {"run_pid", "absent"},
                         {"watching", now.watch.file}};
  if (search.daemon) {
    daemon["pid"] = search.daemon->pid;
    daemon["started_at"] = format_utc(now.start_of(*search.daemon));
  }
  if (search.daemon && !search.pid_file_lost) {
    daemon["run_pid"] = "held";
  } else if (search.pid_file) {
    daemon["run_pid"] = search.hidden.empty() ? "left over" : "unknown";
  }
  return daemon;
}

}  // namespace

std::string status_report::json() const {
  ordered_json list = ordered_json::array();
  for (const program_status& one : programs)
    list.push_back(json_of(one, now));
  const ordered_json whole = {{"schema", "keelmondctl.status"},
                              {"version", 1},
                              {"daemon", daemon_json(here, now)},
                              {"warnings", warnings()},
                              {"programs", list}};
  // Names are bytes; those that are no UTF-8 are replaced rather than lost with all the others.
  return whole.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace control
