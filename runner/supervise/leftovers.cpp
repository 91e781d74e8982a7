#include "runner/supervise/leftovers.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "runner/supervise/known_process.h"
#include "runner/supervise/mark.h"

namespace runner {
namespace {

using processes = std::vector<process_stat>;

/// All that there are, but this process and its ancestors.
processes read_others() {
  processes all;
  find_number("/proc", [&](int pid) {
    if (const auto one = read_process_stat(pid)) all.push_back(*one);
    return false;
  });
  for (pid_t above = ::getpid(); above > 0;) {
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&](const process_stat& one) { return one.pid == above; });
    if (found == all.end()) break;
    above = found->parent;
    all.erase(found);
  }
  return all;
}

}  // namespace

bool leftovers::is_left(const process_stat& one) const {
  // Nothing of it is older.
  if (one.started < former_.launcher_started) return false;
  if (!former_.mark.empty() && read_mark(one.pid).starts_with(former_.mark)) return true;
  // A session keeps its number while somebody is in it. A leader with that number that is not the
  // program has a session of its own.
  const bool is_in_session = former_.pid > 1 && one.session == former_.pid;
  if (!is_in_session || one.started < former_.started) return false;
  const auto leader = read_process_stat(former_.pid);
  return !leader || leader->started == former_.started;
}

processes leftovers::find() const {
  if (!is_of_this_boot(former_.mark)) return {};
  processes others = read_others();
  const auto first_other = std::stable_partition(
      others.begin(), others.end(), [&](const process_stat& one) { return is_left(one); });
  processes found(others.begin(), first_other);
  others.erase(others.begin(), first_other);
  // And what they have started, which may have no mark.
  for (std::size_t i = 0; i < found.size(); ++i) {
    const pid_t parent = found[i].pid;
    const auto rest =
        std::stable_partition(others.begin(), others.end(),
                              [&](const process_stat& one) { return one.parent == parent; });
    found.insert(found.end(), others.begin(), rest);
    others.erase(others.begin(), rest);
  }
  return found;
}

bool leftovers::kill() const {
  bool is_any = false;
  for (const process_stat& one : find())
    is_any = known_process(one).send(SIGKILL) || is_any;
  return is_any;
}

}  // namespace runner
