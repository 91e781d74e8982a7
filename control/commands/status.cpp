#include "control/commands/status.h"

#include <algorithm>
#include <cstdio>

#include "control/commands/status_report.h"
#include "control/commands/status_watch.h"
#include "control/site/memory_meter.h"
#include "control/site/name_filter.h"

namespace control {
namespace {

/// The exit statuses that LSB gives `status`.
constexpr int kRunning = 0;
constexpr int kDeadWithPidFile = 1;
constexpr int kNotRunning = 3;
constexpr int kUnknown = 4;

int status_of_daemon(const daemon_search& search) {
  if (search.daemon) return kRunning;
  if (!search.hidden.empty()) return kUnknown;
  return search.pid_file ? kDeadWithPidFile : kNotRunning;
}

bool is_up(const program_status& one) {
  return one.now == actual::running || one.now == actual::restarting;
}

}  // namespace

int run_status(const session& here, const status_options& options) {
  if (options.watch) return watch_status(here, options);
  const snapshot now = here.look();
  std::vector<program_status> programs = list_programs(now, here.place);
  std::vector<std::string> names;
  names.reserve(programs.size());
  for (const program_status& one : programs)
    names.push_back(one.name);
  const std::string counts = count_programs(programs);
  const name_filter filter(options.names);
  const std::vector<std::string> unknown = filter.unused(names);
  std::erase_if(programs, [&](const program_status& one) { return !filter.fits(one.name); });
  memory_meter().measure(here.proc, programs);

  const status_report report{here, now, programs, counts};
  const std::string text = options.json ? report.json() : report.text();
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
  for (const std::string& name : unknown)
    warn(here, "there is no program " + name + " here: `keelmondctl status` lists them all");
  if (!unknown.empty()) return kUnknown;
  if (options.names.empty()) return status_of_daemon(now.search);
  return std::all_of(programs.begin(), programs.end(), is_up) ? kRunning : kNotRunning;
}

}  // namespace control
