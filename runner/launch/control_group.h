#pragma once

#include <string>
#include <vector>

#include "runner/file/program_file.h"

namespace runner {

/// Where the second version of control groups is, for this process.
struct group_place {
  std::string mount;  ///< Empty where there is none.
  std::string own;    ///< The group of this process, "/" for the topmost.
};

/// As the kernel tells it.
group_place find_group_place();

/// Why there is no group.
struct group_failure {
  /// Which of the limits is at fault, as its key is called; empty when none of them is.
  std::string key;
  std::string text;  ///< Empty when all is well.
};

/// What the group of a program is called: the same after each start, and another one for a program
/// of the same name below another supervisor, whose group may stand beside it.
/// @param supervisor its directory; empty where there is none.
std::string group_name(const std::string& program, const std::string& supervisor);

/// A control group for one program, which holds limits that only such a group can hold.
///
/// It is made where this process may: below its own group, or beside it, as where a service
/// manager has delegated the group above and moved the supervisor into one of its own. Removed when
/// the object goes.
class control_group final {
 public:
  control_group() = default;
  control_group(const control_group&) = delete;
  control_group& operator=(const control_group&) = delete;
  ~control_group() { remove(); }

  /// Makes the group and sets its limits. What is in it, from an earlier launcher, is killed.
  /// @param name as `group_name` gives it.
  group_failure make(const group_limits& limits, const std::string& name, const group_place& place);
  /// The file that a process writes "0" to in order to enter; empty when there is no group.
  [[nodiscard]] std::string entrance() const;
  /// Kills what is in the group, as far as the kernel can, and removes it. Where something is still
  /// in it, the next call tries again.
  void remove();

 private:
  std::string directory_;
  std::vector<std::string> left_;  ///< Those that could not be removed yet.
};

}  // namespace runner
