#include "control/site/ending.h"

#include <algorithm>
#include <csignal>
#include <utility>

namespace control {
namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

milliseconds left_until(steady::time_point end) {
  return std::max(std::chrono::duration_cast<milliseconds>(end - steady::now()), milliseconds(0));
}

}  // namespace

ending::ending(const proc_dir& proc, const std::vector<running_program>& programs) {
  for (const running_program& one : programs) {
    member added{one.name, process_handle(proc, one.copy), {}, one.tree.size()};
    for (const process& below : one.tree) {
      if (one.program && below.same_as(*one.program)) added.program = added.tree.size();
      added.tree.emplace_back(proc, below);
    }
    members_.push_back(std::move(added));
  }
}

void ending::ask(int signal) const {
  for (auto one = members_.rbegin(); one != members_.rend(); ++one) {
    // One that has ended meanwhile is what was wanted.
    if (one->program < one->tree.size()) static_cast<void>(one->tree[one->program].send(signal));
  }
}

bool ending::wait(milliseconds limit) const {
  const auto end = steady::now() + limit;
  return std::all_of(members_.begin(), members_.end(), [&](const member& one) {
    if (one.program < one.tree.size() && !one.tree[one.program].wait_end(left_until(end)))
      return false;
    return one.copy.wait_end(left_until(end));
  });
}

std::vector<std::string> ending::left() const {
  std::vector<std::string> names;
  for (const member& one : members_) {
    const bool has_program = one.program < one.tree.size();
    const process_handle& asked = has_program ? one.tree[one.program] : one.copy;
    if (asked.has_ended() && one.copy.has_ended()) continue;
    names.push_back(one.name + " (PID " + std::to_string(asked.who().pid) + ")");
  }
  return names;
}

void ending::kill() const {
  for (const member& one : members_) {
    static_cast<void>(one.copy.send(SIGKILL));
    for (const process_handle& below : one.tree)
      static_cast<void>(below.send(SIGKILL));
  }
}

}  // namespace control
