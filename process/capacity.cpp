#include "process/capacity.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <limits>
#include <optional>
#include <string>

#include "common/log/console.h"

namespace capacity {
namespace {

/// One limit that is in force.
struct limit {
  std::string name;
  long most;
};

/// The number at the beginning of a file; none when there is no file, or it says "max".
std::optional<long> number_in(const std::string& path) {
  std::ifstream file(path);
  long number = 0;
  return file >> number ? std::optional<long>(number) : std::nullopt;
}

/// Keeps the lower of two.
void lower(limit& lowest, const std::string& name, std::optional<long> most) {
  if (most && *most < lowest.most) lowest = {name, *most};
}

/// The limits of a control group and of those that it lies in. The topmost has one, too, where it
/// is only the topmost of a container.
void lower_by_groups(limit& lowest, const std::string& mount, std::string group) {
  for (;; group.erase(group.rfind('/'))) {
    if (group == "/") group.clear();
    const std::string path = mount + group + "/pids.max";
    lower(lowest, path, number_in(path));
    if (group.empty()) return;
  }
}

void lower_by_control_groups(limit& lowest) {
  std::ifstream groups("/proc/self/cgroup");
  for (std::string line; std::getline(groups, line);) {
    // "0::/path" in the unified hierarchy, "number:controllers:/path" in the older one.
    const std::size_t path = line.find(":/");
    if (path == std::string::npos) continue;
    if (line.starts_with("0::")) {
      lower_by_groups(lowest, "/sys/fs/cgroup", line.substr(path + 1));
    } else if (line.find(":pids:") != std::string::npos) {
      lower_by_groups(lowest, "/sys/fs/cgroup/pids", line.substr(path + 1));
    }
  }
}

void lower_by_user(limit& lowest) {
  struct rlimit user {};
  // Root is not held to it.
  if (::geteuid() == 0 || ::getrlimit(RLIMIT_NPROC, &user) != 0) return;
  if (user.rlim_cur < static_cast<rlim_t>(std::numeric_limits<long>::max()))
    lower(lowest, "ulimit -u", static_cast<long>(user.rlim_cur));
}

limit lowest_limit() {
  limit lowest{"", std::numeric_limits<long>::max()};
  lower(lowest, "kernel.pid_max", number_in("/proc/sys/kernel/pid_max"));
  lower(lowest, "kernel.threads-max", number_in("/proc/sys/kernel/threads-max"));
  lower_by_user(lowest);
  lower_by_control_groups(lowest);
  return lowest;
}

}  // namespace

void warn_before(std::size_t programs) {
  const limit lowest = lowest_limit();
  const auto count = static_cast<long>(programs);
  if (count <= lowest.most / kTasksPerProgram) return;
  char text[512];
  std::snprintf(
      text, sizeof text,
      "%ld programs need about %ld processes and threads, and %s allows %ld. Those beyond "
      "it cannot be started until it is raised",
      count, count * kTasksPerProgram, lowest.name.c_str(), lowest.most);
  console::report_failure("keelmond", text);
}

}  // namespace capacity
