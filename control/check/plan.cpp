#include "control/check/plan.h"

#include <algorithm>
#include <utility>

namespace control {
namespace {

using action = planned_step::action;

std::string pid_of(const running_program& running) {
  return "PID " + std::to_string(running.program ? running.program->pid : running.child.pid);
}

/// A path that is changed has no effect on a program that the daemon knows.
std::string changed_path(const listed_program& program, const snapshot& now) {
  const listed_program* const present = now.find(program.name);
  if (present == nullptr || present->exepath == program.exepath) return {};
  return "; its new exepath counts when keelmond is restarted";
}

planned_step step_for_running(const listed_program& program, const running_program& running,
                              const snapshot& now) {
  const std::string known = changed_path(program, now);
  if (program.wants_stop()) {
    return {program.name, action::stop,
            "is stopped: SIGUSR2 to " + pid_of(running) + " and whatever else `pgrep " +
                program.name + "` finds"};
  }
  if (program.wants_run())
    return {program.name, action::keep, "goes on running (" + pid_of(running) + ")" + known};
  return {
      program.name, action::keep,
      "goes on running (" + pid_of(running) + ") and is not started again when it ends" + known};
}

planned_step step_for_idle(const listed_program& program, const snapshot& now) {
  if (program.wants_run())
    return {program.name, action::start,
            "is started: " + program.exepath + changed_path(program, now)};
  if (program.wants_stop()) return {program.name, action::none, "stays stopped"};
  return {program.name, action::none,
          program.state.empty()
              ? "nothing: it has no state"
              : "nothing: the state \"" + program.state + "\" is neither run nor stop"};
}

planned_step step_for(const listed_program& program, const snapshot& now) {
  const running_program* const running = now.find_running(program.name);
  if (const std::string why = why_skipped(program); !why.empty()) {
    return {program.name, action::skip,
            "its entry is skipped: " + why +
                (running == nullptr ? "" : "; it goes on running (" + pid_of(*running) + ")")};
  }
  return running == nullptr ? step_for_idle(program, now)
                            : step_for_running(program, *running, now);
}

}  // namespace

std::vector<planned_step> make_plan(const std::vector<listed_program>& programs,
                                    const snapshot& now) {
  std::vector<planned_step> steps;
  steps.reserve(programs.size());
  for (const listed_program& program : programs)
    steps.push_back(step_for(program, now));
  for (const running_program& running : now.running) {
    const auto names_it = [&](const listed_program& one) { return one.name == running.name; };
    if (running.name.empty() || std::any_of(programs.begin(), programs.end(), names_it)) continue;
    steps.push_back({running.name, action::keep,
                     "goes on running (" + pid_of(running) +
                         "), supervised: an entry that is gone stops nothing"});
  }
  return steps;
}

}  // namespace control
