#include "control/commands/start_stop.h"

#include <algorithm>
#include <thread>
#include <tuple>

#include "control/check/check_config.h"
#include "control/commands/program_names.h"
#include "control/commands/save_change.h"
#include "control/config/config_editor.h"
#include "control/site/program_status.h"
#include "control/site/reload.h"
#include "control/text/failure.h"
#include "control/text/joined.h"

namespace control {
namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

constexpr milliseconds kLookEvery{10};

bool is_as_wanted(const program_status& one, bool alive) {
  return alive ? one.program.has_value() : !one.child.has_value();
}

/// Why it is not as wanted.
std::string obstacle_of(const program_status& one, bool alive) {
  if (alive) return one.why.empty() ? "it has not been started in time; see keelmond.log" : one.why;
  if (one.now == actual::running && one.wanted == "stop") {
    return one.why + ". `keelmondctl signal " + one.name + " USR2` ends the process";
  }
  const process& shown = one.launcher ? *one.launcher : one.program ? *one.program : *one.child;
  if (!matches_as_pattern(one.name, shown.name)) {
    return "its process (PID " + std::to_string(shown.pid) + ") is called " + shown.name +
           ", and `pgrep " + one.name +
           "`, by which keelmond stops it, does not find that. `keelmondctl signal " + one.name +
           " USR2` ends it";
  }
  return "it still runs (PID " + std::to_string(shown.pid) +
         ") and may ignore SIGUSR2: `keelmondctl signal " + one.name + " KILL` kills it";
}

/// Programs whose entries have an effect are waited for; the others are told of at once.
bool is_worth_waiting_for(const program_status& one, bool alive) {
  if (is_as_wanted(one, alive)) return false;
  return alive ? one.now != actual::not_loaded && one.now != actual::given_up &&
                     one.now != actual::ended
               : one.now != actual::running || one.wanted != "stop";
}

int report(const session& here, const std::vector<std::string>& names, bool alive,
           milliseconds limit) {
  const std::vector<std::string> left = wait_for_programs(here, names, alive, limit);
  for (const std::string& text : left)
    warn(here, text);
  if (!left.empty()) return exit_status::kFailed;
  const std::vector<program_status> programs = list_programs(here.look(), here.place);
  for (const std::string& name : names) {
    const auto at = std::find_if(programs.begin(), programs.end(),
                                 [&](const program_status& one) { return one.name == name; });
    const bool has_pid = alive && at != programs.end() && at->program;
    say(name + (alive ? " runs" : " has ended") +
        (has_pid ? " (PID " + std::to_string(at->program->pid) + ")" : ""));
  }
  return exit_status::kDone;
}

failure bystander_failure(const std::string& name, const std::string& others) {
  return failure("to stop " + name + ", keelmond signals every process that `pgrep " + name +
                 "` finds, and these are not " + name + ": " + others +
                 ". Nothing was changed; --force stops them too, `keelmondctl signal " + name +
                 " USR2` only the program");
}

void refuse_bystanders(const session& here, const snapshot& now,
                       const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    const std::vector<std::string> others = bystanders_of(here, now, name, names);
    if (!others.empty()) throw bystander_failure(name, joined(others, ", "));
  }
}

/// What the file says already may not be so: a save was missed, or a program ignored the signal.
void load_again(const session& here, const std::vector<std::string>& names, bool alive,
                milliseconds limit) {
  const snapshot now = here.look();
  const std::vector<program_status> programs = list_programs(now, here.place);
  const bool is_so = std::all_of(programs.begin(), programs.end(), [&](const auto& one) {
    return std::find(names.begin(), names.end(), one.name) == names.end() ||
           is_as_wanted(one, alive);
  });
  if (is_so || !now.search.daemon) return;
  // Whether it helps is seen by waiting for the programs.
  std::ignore = reload(here.proc, *now.search.daemon, here.place, limit);
}

/// Sets the state and waits until it is so.
int bring_about(const session& here, const std::vector<std::string>& names, bool alive,
                milliseconds limit) {
  const std::string state = alive ? "run" : "stop";
  require_visible(here, here.look().search);
  const applied how = save_change(here, limit, [&](const std::string& text) {
    return config_editor::set_state(text, names, state);
  });
  if (!find_daemon(here.proc, process_table(here.proc), here.place).daemon) {
    say("set to " + state + ": " + joined(names, ", ") +
        ". No keelmond runs here; `keelmondctl up` starts it");
    return exit_status::kDone;
  }
  if (how == applied::unchanged) load_again(here, names, alive, limit);
  return report(here, names, alive, limit);
}

}  // namespace

std::vector<std::string> wait_for_programs(const session& here,
                                           const std::vector<std::string>& names, bool alive,
                                           milliseconds limit) {
  const auto end = steady::now() + limit;
  for (;;) {
    const snapshot now = here.look();
    std::vector<program_status> programs = list_programs(now, here.place);
    std::erase_if(programs, [&](const program_status& one) {
      return std::find(names.begin(), names.end(), one.name) == names.end() ||
             one.now == actual::left_over || is_as_wanted(one, alive);
    });
    const bool any_worth = std::any_of(programs.begin(), programs.end(), [&](const auto& one) {
      return is_worth_waiting_for(one, alive);
    });
    if (!any_worth || steady::now() >= end) {
      std::vector<std::string> left;
      left.reserve(programs.size());
      for (const program_status& one : programs)
        left.push_back(one.name + (alive ? " is not alive: " : " has not ended: ") +
                       obstacle_of(one, alive));
      return left;
    }
    std::this_thread::sleep_for(kLookEvery);
  }
}

int run_start(const session& here, const start_options& options) {
  const std::vector<std::string> names = pick_programs(here.look(), options.names, options.all);
  return bring_about(here, names, true, options.timeout);
}

int stop_programs(const session& here, const std::vector<std::string>& names,
                  const stop_options& options) {
  const snapshot now = here.look();
  if (now.search.daemon && !options.force) refuse_bystanders(here, now, names);
  return bring_about(here, names, false, options.timeout);
}

int run_stop(const session& here, const stop_options& options) {
  return stop_programs(here, pick_programs(here.look(), options.names, options.all), options);
}

}  // namespace control
