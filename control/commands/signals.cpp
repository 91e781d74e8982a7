#include "control/commands/signals.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <thread>

#include "control/commands/program_names.h"
#include "control/proc/process_handle.h"
#include "control/text/failure.h"
#include "runner/file/values.h"

namespace control {
namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

constexpr milliseconds kLookEvery{5};

/// One program that is being restarted.
struct restart {
  std::string name;
  process old;
  pid_t now = 0;
};

const process& running_process(const snapshot& now, const std::string& name) {
  const running_program* const running = now.find_running(name);
  if (running == nullptr || !running->program) {
    throw failure(name + " does not run: `keelmondctl start " + name + "` starts it");
  }
  return *running->program;
}

/// By errno.
std::string why_not_sent(const std::string& name, const process& target) {
  return "cannot signal " + name + " (PID " + std::to_string(target.pid) +
         "): " + std::strerror(errno);
}

void require_supervised(const snapshot& now, const std::string& name) {
  const listed_program* const listed = now.find(name);
  if (listed != nullptr && !listed->wants_run()) {
    throw failure(name + " is set to \"" + listed->state +
                  "\" and would not be started again: `keelmondctl start " + name + "`");
  }
}

/// Those of the programs that run and are started again when they end. Why not of the others is
/// said in `left`.
std::vector<restart> find_restarts(const snapshot& now, const std::vector<std::string>& programs,
                                   const std::vector<std::string>& named,
                                   std::vector<std::string>& left) {
  std::vector<restart> restarts;
  for (const std::string& name : programs) {
    const listed_program* const listed = now.find(name);
    // Of all programs, or those of a pattern, the ones that are not to run are left out; one that
    // was asked for by its name is not.
    const bool is_named = std::find(named.begin(), named.end(), name) != named.end();
    if (!is_named && listed != nullptr && !listed->wants_run()) continue;
    try {
      require_supervised(now, name);
      restarts.push_back({name, running_process(now, name)});
    } catch (const failure& why) {
      left.emplace_back(why.what());
    }
  }
  return restarts;
}

/// Sends each its signal; one that cannot be sent it is taken out. One that has ended by itself
/// meanwhile is started again as well.
void signal_all(const session& here, int signal, std::vector<restart>& restarts,
                std::vector<std::string>& left) {
  std::erase_if(restarts, [&](const restart& one) {
    try {
      if (process_handle(here.proc, one.old).send(signal) || errno == ESRCH) return false;
      left.push_back(why_not_sent(one.name, one.old));
    } catch (const std::exception& why) {
      left.push_back(one.name + ": " + why.what());
    }
    return true;
  });
}

/// Notes the new processes. @return whether all are there.
bool look_for_new(const snapshot& now, std::vector<restart>& restarts) {
  bool all = true;
  for (restart& one : restarts) {
    const running_program* const running = now.find_running(one.name);
    if (running != nullptr && running->program && !running->program->same_as(one.old))
      one.now = running->program->pid;
    all = all && one.now != 0;
  }
  return all;
}

int report(const session& here, const std::vector<restart>& restarts) {
  int status = exit_status::kDone;
  for (const restart& one : restarts) {
    const std::string old = std::to_string(one.old.pid);
    if (one.now != 0) {
      say(one.name + " was PID " + old + " and is PID " + std::to_string(one.now));
      continue;
    }
    status = exit_status::kFailed;
    warn(here,
         !here.proc.is_alive(one.old)
             ? one.name + " (PID " + old +
                   ") has ended and was not started again in time; see `keelmondctl status`"
             : one.name + " (PID " + old + ") has not ended; --signal KILL leaves it no choice");
  }
  return status;
}

}  // namespace

int parse_signal(const std::string& text) {
  if (const auto number = runner::parse_signal(text)) return *number;
  throw failure(
      "there is no signal " + text + ": give a name such as USR1, TERM or HUP, or a number",
      exit_status::kUsage);
}

int run_restart(const session& here, const restart_options& options) {
  const int signal = parse_signal(options.signal);
  const auto end = steady::now() + options.timeout;
  const snapshot now = here.look();
  need_daemon(here, now);
  std::vector<std::string> left;
  std::vector<restart> restarts =
      find_restarts(now, pick_programs(now, options.names, options.all), options.names, left);
  if (restarts.empty() && left.empty()) say("none of these programs is to run");
  signal_all(here, signal, restarts, left);
  while (!look_for_new(here.look(), restarts) && steady::now() < end)
    std::this_thread::sleep_for(kLookEvery);
  const int status = report(here, restarts);
  for (const std::string& why : left)
    warn(here, why);
  return left.empty() ? status : exit_status::kFailed;
}

int run_signal(const session& here, const signal_options& options) {
  const int signal = parse_signal(options.signal);
  const snapshot now = here.look();
  require_visible(here, now.search);
  const process target = running_process(now, options.name);
  if (!process_handle(here.proc, target).send(signal))
    throw failure(why_not_sent(options.name, target));
  say("sent " + options.signal + " to " + options.name + " (PID " + std::to_string(target.pid) +
      ")");
  return exit_status::kDone;
}

}  // namespace control
