#include "control/site/launcher_state.h"

#include <algorithm>

#include "control/text/quantity.h"

namespace control {
namespace {

using runner::program_phase;

/// "4 s", "2m 05s".
std::string pause_until(std::int64_t next, std::int64_t now) {
  const std::int64_t seconds = std::max<std::int64_t>((next - now + 999) / 1000, 0);
  return seconds < 60 ? std::to_string(seconds) + " s"
                      : format_duration(static_cast<double>(seconds));
}

actual actual_of(program_phase phase) {
  switch (phase) {
    case program_phase::reading:
    case program_phase::needs:
    case program_phase::before:
    case program_phase::starting:
      return actual::starting;
    case program_phase::running:
      return actual::running;
    case program_phase::stopping:
    case program_phase::clearing:
    case program_phase::after:
      return actual::stopping;
    case program_phase::waiting:
      return actual::waiting;
    case program_phase::ended:
      return actual::ended;
    case program_phase::given_up:
      return actual::given_up;
  }
  return actual::running;
}

}  // namespace

std::string describe_state(const runner::program_state& state, std::int64_t now) {
  const std::string status = state.status.empty() ? "" : ": " + state.status;
  switch (state.phase) {
    case program_phase::reading:
      return "what an earlier keelmond-run left running is being ended";
    case program_phase::needs:
      return "waiting for programs that it needs to be ready";
    case program_phase::before:
      return "the command that comes before it runs";
    case program_phase::starting:
      return "not ready yet" + (state.says.empty() ? "" : ": " + state.says);
    case program_phase::clearing:
      return "what it left running is being ended";
    case program_phase::after:
      return "the command that comes after it runs";
    case program_phase::waiting:
      return "waiting " + pause_until(state.next, now) +
             (state.attempt > 0 ? ", attempt " + std::to_string(state.attempt) : "") + status;
    case program_phase::ended:
      return "not started again" + status;
    case program_phase::given_up:
      return "given up after " + std::to_string(state.attempt) + " attempts" + status;
    default:
      return {};
  }
}

bool apply_state(const runner::program_state& state, std::int64_t now, program_status& status) {
  if (!status.program || status.program->pid != state.launcher ||
      status.program->started != state.launcher_started) {
    return false;
  }
  status.launcher = status.program;
  const auto own = std::find_if(status.tree.begin(), status.tree.end(), [&](const process& one) {
    return one.pid == state.pid && one.started == state.started;
  });
  status.program = own == status.tree.end() ? std::nullopt : std::optional<process>(*own);
  // A program that was told to stop is stopping, whatever its launcher says.
  if (status.now == actual::stopping) return true;
  status.now = actual_of(state.phase);
  status.why = describe_state(state, now);
  return true;
}

}  // namespace control
