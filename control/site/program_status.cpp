#include "control/site/program_status.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "control/site/launcher_state.h"
#include "control/text/quantity.h"
#include "runner/file/program_file.h"
#include "runner/file/state_file.h"

namespace control {
namespace {

/// The daemon's limit, and as much log as that many ends fill at least and at most.
constexpr int kRestartLimit = 200000;
constexpr std::int64_t kLogOfLimit = std::int64_t{kRestartLimit} * 60;
constexpr std::int64_t kMostLog = std::int64_t{64} << 20;

/// What a look at the log is about: the last minute, in so many bytes at most.
constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kLogOfMinute = std::int64_t{1} << 18;
/// How many starts of a program beside its last one are often in that time, and which programs may
/// be behind.
constexpr int kOften = 3;
constexpr double kYoung = 20;

/// How long a launcher may take, in seconds, until it tells what it does.
constexpr double kSilent = 10;

void take_processes(program_status& status, const running_program& running) {
  status.child = running.child;
  status.program = running.program;
  status.tree = running.tree;
  for (const process& one : running.tree)
    status.cpu_seconds += static_cast<double>(one.cpu) / ticks_per_second();
}

/// How long, in seconds, a program that is to run may be idle before more than slowness is thought
/// of: the daemon looks once a second at what it has not started.
constexpr double kIdle = 3;

/// Whether so many programs have ended since the daemon was started that one of them may be at the
/// limit.
bool has_reached_limit(const site& place) {
  std::error_code error;
  const auto size = std::filesystem::file_size(place.log_file(), error);
  if (error || static_cast<std::int64_t>(size) < kLogOfLimit) return false;
  int ends = 0;
  for (const log_event& event : read_last_events(place.log_file(), kMostLog)) {
    if (event.what == log_event::kind::supervisor_started) ends = 0;
    if (event.what == log_event::kind::ended) ++ends;
  }
  return ends > kRestartLimit;
}

/// Asks that once, and not for each of a thousand programs that are being started.
class restart_limit final {
 public:
  restart_limit(const snapshot& now, const site& place) : now_(now), place_(place) {}

  /// Whether one that is to run and is idle may have been given up, and was not set to run just
  /// now.
  [[nodiscard]] bool may_be_reached() {
    if (!asked_) reached_ = is_old() && has_reached_limit(place_);
    asked_ = true;
    return reached_;
  }

 private:
  [[nodiscard]] bool is_old() const {
    const std::time_t saved = now_.config ? now_.config->status.st_ctime : 0;
    return now_.age_of(*now_.search.daemon) > kIdle &&
           std::abs(std::difftime(std::time(nullptr), saved)) > kIdle;
  }

  const snapshot& now_;
  const site& place_;
  bool asked_ = false;
  bool reached_ = false;
};

void judge_running(program_status& status, const listed_program& entry) {
  if (!status.program) {
    status.now = actual::starting;
    return;
  }
  status.now = actual::running;
  if (!entry.wants_stop()) return;
  const std::string skipped = why_skipped(entry);
  if (skipped.empty()) {
    status.now = actual::stopping;
    status.why = "it has been told to stop and still runs";
  } else {
    status.why = "its entry is skipped, and so is the stop: " + skipped;
  }
}

void judge_idle(program_status& status, const listed_program& entry, const snapshot& now,
                restart_limit& limit) {
  if (entry.wants_stop()) return;
  if (const std::string why = why_skipped(entry); !why.empty()) {
    status.now = actual::not_loaded;
    status.why = why;
  } else if (!entry.wants_run()) {
    status.why = entry.state.empty() ? "it has no state" : "this state is neither run nor stop";
  } else if (!now.search.daemon) {
    // That is said above the table.
  } else if (limit.may_be_reached()) {
    status.now = actual::given_up;
    status.why =
        "programs have ended more than 200000 times, which is the limit for one; restart the "
        "supervisor";
  } else if (now.watch.is_lost()) {
    status.now = actual::not_loaded;
    status.why = "the saved file has not been read; `keelmondctl reload` has it read";
  } else {
    status.now = actual::starting;
  }
}

/// A launcher notes what it does in a file of the name that its program file has.
void ask_launcher(program_status& status, const listed_program& entry, const snapshot& now,
                  const site& place) {
  const runner::state_files files(place.directory, runner::program_name_of(entry.exepath));
  const auto state = files.read();
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
  if (state && apply_state(*state, milliseconds, status)) return;
  // It has not come that far, or tells another supervisor.
  if (status.now != actual::running || now.age_of(*status.program) > kSilent) return;
  status.launcher = std::exchange(status.program, std::nullopt);
  status.now = actual::starting;
}

program_status status_of(const listed_program& entry, const running_program* running,
                         const snapshot& now, const site& place, restart_limit& limit) {
  program_status status;
  status.name = entry.name;
  status.wanted = entry.state;
  if (running != nullptr) {
    take_processes(status, *running);
    judge_running(status, entry);
    if (running->is_launcher) ask_launcher(status, entry, now, place);
  } else {
    judge_idle(status, entry, now, limit);
  }
  return status;
}

program_status unlisted(const running_program& running, actual what) {
  program_status status;
  if (running.listed && what == actual::removed)
    status.why = "a second one; keelmond's child above the first may have been stopped for a while";
  status.name = running.name.empty() ? "?" : running.name;
  status.now = what;
  take_processes(status, running);
  return status;
}

/// What the end of the log tells about starts.
struct recent_starts {
  int in_minute = 0;  ///< Of all programs together.
  std::unordered_set<pid_t>
      after_an_end;  ///< Children that may have been launched in place of others.
};

recent_starts read_recent_starts(const site& place) {
  // Compared as texts: to turn each time into a number takes longer than all the rest.
  const std::string since = format_local(static_cast<std::int64_t>(std::time(nullptr)) - kMinute);
  recent_starts found;
  int ends = 0;  // Without a later launch in their place.
  for (const log_event& event : read_last_events(place.log_file(), kLogOfMinute)) {
    switch (event.what) {
      case log_event::kind::supervisor_started:
        found = {};
        ends = 0;
        break;
      case log_event::kind::ended:
        ++ends;
        break;
      case log_event::kind::launched:
        if (event.time >= since) ++found.in_minute;
        if (ends > 0) {
          --ends;
          found.after_an_end.insert(event.pid);
        }
        break;
      default:
        break;
    }
  }
  return found;
}

/// The log does not say which program was launched. Suspected are those that have been started just
/// now when something had ended before; they must have more starts than a person gives them.
void mark_restarting(const snapshot& now, const site& place,
                     std::vector<program_status>& programs) {
  int started = 0;
  std::vector<program_status*> suspects;
  for (program_status& one : programs) {
    if (!one.child || now.age_of(*one.child) > static_cast<double>(kMinute)) continue;
    ++started;
    if (one.now == actual::running && now.age_of(*one.child) < kYoung) suspects.push_back(&one);
  }
  if (suspects.empty()) return;
  const recent_starts starts = read_recent_starts(place);
  std::erase_if(suspects, [&](const program_status* one) {
    return !starts.after_an_end.contains(one->child->pid);
  });
  const int more = starts.in_minute - started;
  if (more < kOften * static_cast<int>(suspects.size())) return;
  for (program_status* const one : suspects) {
    one->now = actual::restarting;
    one->why = "programs have ended and been started again in the last minute";
  }
}

}  // namespace

const char* name_of(actual what) {
  switch (what) {
    case actual::running:
      return "running";
    case actual::starting:
      return "starting";
    case actual::restarting:
      return "restarting often";
    case actual::stopped:
      return "stopped";
    case actual::stopping:
      return "stopping";
    case actual::waiting:
      return "waiting";
    case actual::ended:
      return "ended";
    case actual::given_up:
      return "given up";
    case actual::not_loaded:
      return "not loaded";
    case actual::removed:
      return "removed, still running";
    case actual::left_over:
      return "left over";
  }
  return "?";
}

std::vector<program_status> list_programs(const snapshot& now, const site& place) {
  std::unordered_map<std::string, const running_program*> by_name;
  std::vector<const running_program*> unnamed;
  for (const running_program& one : now.running) {
    if (!one.listed || !by_name.emplace(one.name, &one).second) unnamed.push_back(&one);
  }
  std::vector<program_status> programs;
  restart_limit limit(now, place);
  for (const listed_program& entry : now.programs) {
    const auto at = by_name.find(entry.name);
    const running_program* const running = at == by_name.end() ? nullptr : at->second;
    programs.push_back(status_of(entry, running, now, place, limit));
  }
  if (now.search.daemon && counts_as_empty(now, place)) {
    for (program_status& one : programs) {
      if (one.child || one.now != actual::starting) continue;
      one.now = actual::not_loaded;
      one.why = "keelmond's user may not write the list, so it counts as empty";
    }
  }
  for (const running_program* const one : unnamed) {
    // A child that has executed nothing yet belongs to one of the entries that are being started.
    if (one->name.empty()) continue;
    programs.push_back(unlisted(*one, actual::removed));
  }
  mark_restarting(now, place, programs);
  for (const running_program& one : now.left_over)
    programs.push_back(unlisted(one, actual::left_over));
  return programs;
}

}  // namespace control
