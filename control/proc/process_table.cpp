#include "control/proc/process_table.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <utility>

#include "control/proc/in_parallel.h"

namespace control {

process_table::process_table(const proc_dir& proc) {
  const std::vector<pid_t> pids = proc.pids();
  std::vector<std::optional<process>> found(pids.size());
  in_parallel(pids.size(), [&](std::size_t i) { found[i] = proc.find(pids[i]); });
  for (std::optional<process>& one : found) {
    if (one) processes_.push_back(std::move(*one));
  }
  index();
}

process_table::process_table(std::vector<process> processes) : processes_(std::move(processes)) {
  index();
}

void process_table::index() {
  const auto by_pid = [](const process& a, const process& b) { return a.pid < b.pid; };
  std::sort(processes_.begin(), processes_.end(), by_pid);
  for (const process& one : processes_)
    by_parent_.push_back(&one);
  std::sort(by_parent_.begin(), by_parent_.end(), [](const process* a, const process* b) {
    if (a->parent != b->parent) return a->parent < b->parent;
    return a->started != b->started ? a->started < b->started : a->pid < b->pid;
  });
}

const process* process_table::find(pid_t pid) const {
  const auto at =
      std::lower_bound(processes_.begin(), processes_.end(), pid,
                       [](const process& one, pid_t wanted) { return one.pid < wanted; });
  return at != processes_.end() && at->pid == pid ? &*at : nullptr;
}

std::vector<const process*> process_table::children(pid_t pid) const {
  const auto before = [](const process* one, pid_t parent) { return one->parent < parent; };
  auto at = std::lower_bound(by_parent_.begin(), by_parent_.end(), pid, before);
  std::vector<const process*> found;
  for (; at != by_parent_.end() && (*at)->parent == pid; ++at)
    found.push_back(*at);
  return found;
}

std::vector<const process*> process_table::tree(pid_t pid) const {
  std::vector<const process*> found;
  if (const process* const top = find(pid)) found.push_back(top);
  // The list grows while it is walked. A process whose parent was read after it had been replaced
  // by a later one could close a circle; nobody is listed twice.
  for (std::size_t i = 0; i < found.size(); ++i) {
    for (const process* const child : children(found[i]->pid)) {
      if (std::find(found.begin(), found.end(), child) == found.end()) found.push_back(child);
    }
  }
  return found;
}

}  // namespace control
