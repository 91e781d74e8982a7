#include "control/commands/program_names.h"

#include <algorithm>
#include <set>

#include "control/check/check_config.h"
#include "control/site/name_filter.h"
#include "control/text/failure.h"
#include "control/text/joined.h"

namespace control {

std::vector<std::string> pick_programs(const snapshot& now,
                                       const std::vector<std::string>& patterns, bool all) {
  if (patterns.empty() && !all)
    throw failure("say which programs: names, patterns or --all", exit_status::kUsage);
  std::vector<std::string> names;
  for (const listed_program& program : now.programs)
    names.push_back(program.name);
  const name_filter filter(all ? std::vector<std::string>{} : patterns);
  const std::vector<std::string> unknown = filter.unused(names);
  if (!unknown.empty()) {
    throw failure("there is no program " + joined(unknown, ", ") +
                  " in config/server.ini: `keelmondctl status` lists them. Nothing was done");
  }
  std::erase_if(names, [&](const std::string& name) { return !filter.fits(name); });
  return names;
}

std::vector<std::string> bystanders_of(const session& here, const snapshot& now,
                                       const std::string& name,
                                       const std::vector<std::string>& stopped) {
  std::set<pid_t> own;
  const auto add = [&](const std::vector<running_program>& programs) {
    for (const running_program& one : programs) {
      if (std::find(stopped.begin(), stopped.end(), one.name) == stopped.end()) continue;
      for (const process& below : one.tree)
        own.insert(below.pid);
    }
  };
  add(now.running);
  add(now.left_over);
  std::vector<std::string> others;
  const process_table processes(here.proc);
  for (const process& one : processes.all()) {
    // Children of keelmond do nothing on the signal; the daemon ends.
    const bool is_child = one.name == kDaemonName && one.threads == 1;
    if (own.contains(one.pid) || is_child || !matches_as_pattern(name, one.name)) continue;
    others.push_back(one.name + " (PID " + std::to_string(one.pid) + ")");
  }
  return others;
}

}  // namespace control
