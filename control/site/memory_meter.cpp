#include "control/site/memory_meter.h"

#include <cstddef>
#include <utility>

#include "control/proc/in_parallel.h"

namespace control {
namespace {

constexpr int kMostLooks = 10;

}  // namespace

bool memory_meter::is_due(const process& one) const {
  const auto at = known_.find(one.pid);
  return at == known_.end() || !at->second.who.same_as(one) ||
         at->second.who.resident != one.resident || at->second.looks + 1 >= kMostLooks;
}

void memory_meter::measure(const proc_dir& proc, std::vector<program_status>& programs) {
  std::vector<measured> due;
  for (const program_status& program : programs) {
    for (const process& one : program.tree) {
      if (is_due(one)) due.push_back({one});
    }
  }
  in_parallel(due.size(), [&](std::size_t i) { due[i].bytes = proc.memory(due[i].who.pid); });

  std::unordered_map<pid_t, measured> now;
  for (measured& one : due)
    now.emplace(one.who.pid, std::move(one));
  for (program_status& program : programs) {
    for (const process& one : program.tree) {
      if (!now.contains(one.pid)) {
        measured kept = known_.at(one.pid);
        ++kept.looks;
        now.emplace(one.pid, std::move(kept));
      }
      program.memory += now.at(one.pid).bytes;
    }
  }
  known_ = std::move(now);
}

}  // namespace control
