#include "control/logs/log_location.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "common/misc/small_file.h"
#include "runner/file/program_file.h"
#include "runner/file/state_file.h"

namespace control {
namespace {

using runner::log_settings;
using runner::log_target;

void add_files(const std::string& name, const log_settings& log, log_locations& out) {
  out.files.push_back({name, log.file});
  if (!log.stderr_file.empty()) out.files.push_back({name + "/stderr", log.stderr_file});
}

void add_log(const std::string& name, const log_settings& log, log_locations& out) {
  switch (log.target) {
    case log_target::file:
      return add_files(name, log, out);
    case log_target::journal:
      out.elsewhere.push_back(name + " writes to the journal: `journalctl -t " + log.name +
                              "` shows it");
      return;
    case log_target::syslog:
      out.elsewhere.push_back(name + " writes to the local syslog, as " + log.name);
      return;
    case log_target::inherit:
      out.elsewhere.push_back(name + " writes where keelmond does: give its file a section [log]");
  }
}

/// What is wrong with the file that the daemon runs, and a log that is known nevertheless.
void add_unreadable(const std::string& name, const std::string& why, const site& place,
                    log_locations& out) {
  const auto state = runner::state_files(place.directory, name).read();
  if (state && !state->log.empty())
    out.files.push_back({name, state->log});
  else
    out.elsewhere.push_back(why);
}

}  // namespace

log_locations locate_logs(const snapshot& now, const site& place,
                          const std::vector<std::string>& names) {
  log_locations found;
  for (const std::string& name : names) {
    const listed_program* program = now.find(name);
    if (program == nullptr) continue;
    const std::string& path = program->exepath;
    std::string text;
    const bool is_read = read_small_file(AT_FDCWD, path.c_str(), text);
    // One that is too large is any program.
    if (!is_read && errno != EFBIG) {
      add_unreadable(name, "cannot read " + path + ": " + std::strerror(errno), place, found);
      continue;
    }
    if (!runner::is_program_file(text)) {
      found.elsewhere.push_back(name + " is not run by keelmond-run, so nothing is known of a log");
      continue;
    }
    const runner::program_file_result file = runner::read_program_text(text, path);
    if (file.findings.empty())
      add_log(name, file.settings.log, found);
    else
      add_unreadable(name, path + " has errors: `keelmondctl check` lists them", place, found);
  }
  return found;
}

}  // namespace control
