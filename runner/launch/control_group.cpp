#include "runner/launch/control_group.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <tuple>
#include <utility>
#include <vector>

#include "common/misc/small_file.h"
#include "common/misc/unique_fd.h"
#include "runner/file/words.h"

namespace runner {
namespace {

/// How long a period is, over which processor time is shared out.
constexpr unsigned kPeriod = 100000;

bool write_setting(const std::string& path, const std::string& text) {
  const unique_fd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  return file.valid() && write_whole(file.get(), text);
}

std::string read_setting(const std::string& path) {
  std::string text;
  // What cannot be read has nothing in it.
  std::ignore = read_small_file(AT_FDCWD, path.c_str(), text);
  return text;
}

/// Calls `handle` with the words of each line of a text.
template <typename Handler>
void for_each_line(std::string_view text, Handler handle) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    handle(split_names(text.substr(0, end)));
    if (end == std::string_view::npos) return;
    text.remove_prefix(end + 1);
  }
}

std::vector<std::string> needed_controllers(const group_limits& limits) {
  std::vector<std::string> needed;
  if (limits.memory > 0) needed.emplace_back("memory");
  if (limits.processors > 0) needed.emplace_back("cpu");
  if (limits.tasks > 0) needed.emplace_back("pids");
  return needed;
}

bool lists(const std::string& text, const std::string& word) {
  bool found = false;
  for_each_line(text, [&](const std::vector<std::string>& words) {
    for (const std::string& one : words)
      found = found || one == word;
  });
  return found;
}

/// Whether groups below `parent` can have the controllers; turns them on where they are off.
bool offer_controllers(const std::string& parent, const std::vector<std::string>& needed) {
  for (const std::string& one : needed) {
    const std::string offered = parent + "/cgroup.subtree_control";
    if (lists(read_setting(offered), one)) continue;
    if (!lists(read_setting(parent + "/cgroup.controllers"), one)) return false;
    if (!write_setting(offered, "+" + one)) return false;
  }
  return true;
}

std::string set_limits(const std::string& directory, const group_limits& limits) {
  const auto set = [&](const char* file, const std::string& value) -> std::string {
    if (write_setting(directory + "/" + file, value)) return "";
    return "cannot write " + directory + "/" + file + ": " + std::strerror(errno);
  };
  std::string error;
  if (limits.memory > 0) error = set("memory.max", std::to_string(limits.memory));
  if (error.empty() && limits.processors > 0) {
    const unsigned quota = limits.processors * (kPeriod / 100);
    error = set("cpu.max", std::to_string(quota) + " " + std::to_string(kPeriod));
  }
  if (error.empty() && limits.tasks > 0) error = set("pids.max", std::to_string(limits.tasks));
  return error;
}

void kill_all(const std::string& group) {
  // Fails where the kernel is older than 5.14.
  std::ignore = write_setting(group + "/cgroup.kill", "1");
}

}  // namespace

std::string group_name(const std::string& program, const std::string& supervisor) {
  // FNV-1a: short, and the same in each version.
  std::uint32_t hash = 2166136261U;
  for (const char c : supervisor)
    hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  char text[16];
  std::snprintf(text, sizeof text, "%08x", hash);
  return "keelmond." + program + "." + text;
}

group_place find_group_place() {
  group_place place;
  for_each_line(read_setting("/proc/self/mounts"), [&](const std::vector<std::string>& words) {
    if (words.size() > 2 && words[2] == "cgroup2" && place.mount.empty()) place.mount = words[1];
  });
  for_each_line(read_setting("/proc/self/cgroup"), [&](const std::vector<std::string>& words) {
    if (!words.empty() && words.front().starts_with("0::")) place.own = words.front().substr(3);
  });
  return place;
}

std::string control_group::make(const group_limits& limits, const std::string& name,
                                const group_place& place) {
  remove();
  if (place.mount.empty() || place.own.empty()) return "there are no control groups of version 2";
  const std::string own = place.mount + (place.own == "/" ? "" : place.own);
  std::vector<std::string> parents{own};
  if (place.own != "/") parents.push_back(own.substr(0, own.rfind('/')));
  const std::vector<std::string> needed = needed_controllers(limits);
  for (const std::string& parent : parents) {
    if (!offer_controllers(parent, needed)) continue;
    std::string directory = parent;
    directory.append("/").append(name);
    if (::mkdir(directory.c_str(), 0755) != 0) {
      if (errno != EEXIST) continue;
      kill_all(directory);
    }
    directory_ = directory;
    std::erase(left_, directory);
    std::string error = set_limits(directory, limits);
    if (!error.empty()) remove();
    return error;
  }
  return "the control group " + own + " is not delegated to the supervisor";
}

std::string control_group::entrance() const {
  return directory_.empty() ? "" : directory_ + "/cgroup.procs";
}

void control_group::remove() {
  if (!directory_.empty()) left_.push_back(std::exchange(directory_, {}));
  std::erase_if(left_, [](const std::string& one) {
    kill_all(one);
    return ::rmdir(one.c_str()) == 0 || (errno != EBUSY && errno != ENOTEMPTY);
  });
}

}  // namespace runner
