#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "control/site/log_reader.h"
#include "control/site/snapshot.h"

namespace control {

/// Puts names to the events of a log, which has only the process ids of the daemon's children: as
/// long as a child lives it can be asked what it runs, and which children are gone tells whose end
/// it was.
class log_names final {
 public:
  /// Takes note of what runs.
  void learn(const snapshot& now);
  /// Names the events, of which the last ones have just happened if `live`.
  void name(std::vector<log_event>& events, const snapshot& now, bool live);

 private:
  struct known_child {
    std::string name;
    process child;
  };
  std::unordered_map<pid_t, known_child> children_;
};

}  // namespace control
