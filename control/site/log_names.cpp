#include "control/site/log_names.h"

#include <unordered_set>

namespace control {

void log_names::learn(const snapshot& now) {
  for (const running_program& one : now.running) {
    if (!one.name.empty()) children_[one.child.pid] = {one.name, one.child};
  }
}

void log_names::name(std::vector<log_event>& events, const snapshot& now, bool live) {
  std::unordered_set<pid_t> alive;
  for (const running_program& one : now.running)
    alive.insert(one.child.pid);
  std::vector<std::string> ended;
  if (live) {
    for (auto at = children_.begin(); at != children_.end();) {
      if (alive.contains(at->first)) {
        ++at;
        continue;
      }
      ended.push_back(at->second.name);
      at = children_.erase(at);
    }
  }
  learn(now);
  for (log_event& event : events) {
    const auto known = children_.find(event.pid);
    if (event.what == log_event::kind::launched && known != children_.end() &&
        is_launched_by_log({event}, known->second.child, now.start_of(known->second.child))) {
      event.program = known->second.name;
    }
    // With several ends at once nobody can tell which was whose.
    if (event.what == log_event::kind::ended && ended.size() == 1) event.program = ended.front();
  }
}

}  // namespace control
