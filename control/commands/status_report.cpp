#include "control/commands/status_report.h"

#include <algorithm>
#include <cstring>

#include "control/text/quantity.h"
#include "control/text/table.h"

namespace control {
namespace {

std::string count_of(const std::vector<program_status>& programs, actual what) {
  const auto count = std::count_if(programs.begin(), programs.end(),
                                   [what](const program_status& one) { return one.now == what; });
  return count == 0 ? std::string() : std::to_string(count) + " " + name_of(what);
}

table::cell number(std::size_t value) {
  return {value == 0 ? "-" : std::to_string(value)};
}

}  // namespace

std::string count_programs(const std::vector<program_status>& programs) {
  std::string text;
  for (const actual what : {actual::running, actual::starting, actual::restarting, actual::stopping,
                            actual::stopped, actual::waiting, actual::ended, actual::given_up,
                            actual::not_loaded, actual::removed, actual::left_over}) {
    const std::string one = count_of(programs, what);
    if (!one.empty()) text += (text.empty() ? "" : ", ") + one;
  }
  return text.empty() ? "no programs" : text;
}

tone tone_of(actual what) {
  switch (what) {
    case actual::running:
      return tone::good;
    case actual::stopped:
    case actual::ended:
      return tone::faint;
    case actual::starting:
    case actual::stopping:
    case actual::restarting:
    case actual::waiting:
    case actual::removed:
      return tone::warning;
    default:
      return tone::bad;
  }
}

std::vector<std::string> status_report::warnings() const {
  std::vector<std::string> texts;
  const daemon_search& search = now.search;
  if (!now.config) {
    texts.push_back(here.place.config_file() + " cannot be read: " +
                    std::strerror(now.config_error) + ". `keelmondctl init` makes one");
  }
  if (search.daemon && now.watch.is_lost()) {
    texts.emplace_back(
        "the daemon watches a file that is no longer config/server.ini: it will not see the next "
        "save. `keelmondctl reload` has the present file read");
  }
  if (search.pid_file_lost) {
    texts.emplace_back(
        "somebody deleted run.pid: a second keelmond could be started here. Restart this one with "
        "`keelmondctl down` and `keelmondctl up`");
  }
  for (const process& other : search.more) {
    texts.push_back("another keelmond runs here as well (PID " + std::to_string(other.pid) +
                    "), and every program may run twice: shut it down with kill -USR2 " +
                    std::to_string(other.pid));
  }
  if (!search.daemon && search.pid_file && search.hidden.empty()) {
    texts.emplace_back(
        "run.pid is left over from a keelmond that was killed: `keelmondctl up` removes it");
  }
  if (!search.daemon && !search.hidden.empty()) {
    texts.push_back("other users run keelmond (PID " + std::to_string(search.hidden.front().pid) +
                    "), perhaps here: root can tell");
  }
  if (!now.left_over.empty()) {
    texts.emplace_back(
        search.daemon
            ? "an earlier keelmond left programs running: `keelmondctl down` stops them too"
            : "a keelmond that was killed left programs running: `keelmondctl up` stops "
              "them before it starts them again");
  }
  return texts;
}

std::string status_report::head() const {
  std::string line;
  if (now.search.daemon) {
    line = here.out.painted("keelmond runs", tone::good) + " in " + here.place.directory +
           " (PID " + std::to_string(now.search.daemon->pid) + ") for " +
           format_duration(now.age_of(*now.search.daemon)) + ": " + counts + "\n";
  } else {
    line = here.out.painted("keelmond does not run", tone::bad) + " in " + here.place.directory +
           ": " + counts + "\n";
  }
  for (const std::string& text : warnings())
    line += here.out.painted("warning: ", tone::warning) + text + "\n";
  return line;
}

std::string status_report::text() const {
  if (programs.empty()) return head();
  using enum table::align;
  table rows({{"NAME", left, false},
              {"WANTED"},
              {"ACTUAL"},
              {"PID", right},
              {"UP", right},
              {"CPU", right},
              {"MEMORY", right},
              {"PROCS", right},
              {"WHY", left, true}});
  for (const program_status& one : programs) {
    const bool up = one.program.has_value();
    rows.add({{printable(one.name)},
              {one.wanted.empty() ? "-" : printable(one.wanted)},
              {name_of(one.now), tone_of(one.now)},
              {up ? std::to_string(one.program->pid) : "-"},
              {up ? format_duration(now.age_of(*one.program)) : "-"},
              {up ? format_short_duration(one.cpu_seconds) : "-"},
              {format_size(one.memory)},
              number(one.tree.size()),
              {printable(one.why)}});
  }
  return head() + rows.print(here.out);
}

}  // namespace control
