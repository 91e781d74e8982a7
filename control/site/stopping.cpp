#include "control/site/stopping.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iterator>
#include <tuple>
#include <unordered_set>
#include <utility>

#include "control/proc/deadline.h"
#include "control/proc/process_handle.h"
#include "control/proc/process_table.h"

namespace control {
namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

/// The process whose end is waited for, beside that of the daemon's child.
const process& awaited(const running_program& one) {
  return one.program ? *one.program : one.child;
}

/// Those of the process itself, and not of a later one with its id.
std::vector<const process*> children_of(const process_table& table, const process& one) {
  const process* const now = table.find(one.pid);
  if (now == nullptr || !now->same_as(one)) return {};
  return table.children(one.pid);
}

}  // namespace

stopping::stopping(const proc_dir& proc, std::vector<running_program> programs)
    : proc_(proc), members_(std::move(programs)) {}

void stopping::add(std::vector<running_program> programs) {
  // A program that has lost the child above it since has taken that child's place.
  std::unordered_set<pid_t> known;
  for (const running_program& one : members_) {
    known.insert(one.child.pid);
    known.insert(awaited(one).pid);
  }
  std::erase_if(programs,
                [&](const running_program& one) { return known.contains(one.child.pid); });
  std::move(programs.begin(), programs.end(), std::back_inserter(members_));
}

void stopping::ask(int signal) {
  for (std::size_t i = members_.size(); i-- > asked_;) {
    // One that has ended meanwhile is what was wanted.
    if (members_[i].program) std::ignore = process_handle(proc_, *members_[i].program).send(signal);
  }
  asked_ = members_.size();
}

bool stopping::wait(milliseconds limit) const {
  const auto end = steady::now() + limit;
  return std::all_of(members_.begin(), members_.end(), [&](const running_program& one) {
    return process_handle(proc_, awaited(one)).wait_end(left_until(end)) &&
           process_handle(proc_, one.child).wait_end(left_until(end));
  });
}

std::vector<std::string> stopping::left() const {
  std::vector<std::string> names;
  for (const running_program& one : members_) {
    if (proc_.is_alive(awaited(one)) || proc_.is_alive(one.child))
      names.push_back(one.name + " (PID " + std::to_string(awaited(one).pid) + ")");
  }
  return names;
}

/// Stops everything below the daemon's children, so that it forks no more. What cannot be stopped
/// and forks for ever is not followed for ever. @return all of it.
std::vector<process> stopping::freeze() const {
  constexpr int kMostLooks = 100;
  std::vector<process> all;
  // Not this very process, which one of the programs may have started.
  std::unordered_set<pid_t> known = {::getpid()};
  const auto take = [&](const process& one) {
    if (!known.insert(one.pid).second) return;
    all.push_back(one);
    std::ignore = process_handle(proc_, one).send(SIGSTOP);
  };
  for (const running_program& one : members_)
    std::for_each(one.tree.begin(), one.tree.end(), take);
  std::size_t before = all.size() + 1;
  for (int looks = 0; looks < kMostLooks && before != all.size(); ++looks) {
    before = all.size();
    const process_table now(proc_);
    for (const running_program& one : members_) {
      for (const process* const below : children_of(now, one.child))
        take(*below);
    }
    for (std::size_t i = 0; i < all.size(); ++i) {
      for (const process* const below : children_of(now, process(all[i])))
        take(*below);
    }
  }
  return all;
}

void stopping::kill() const {
  const auto kill_one = [&](const process& one) {
    std::ignore = process_handle(proc_, one).send(SIGKILL);
  };
  const std::vector<process> below = freeze();
  for (const running_program& one : members_)
    kill_one(one.child);
  std::for_each(below.begin(), below.end(), kill_one);
}

}  // namespace control
