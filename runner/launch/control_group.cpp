#include "runner/launch/control_group.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

/// A key of the section `limits`, and what holds it in a group.
struct group_limit {
  const char* key;
  const char* controller;
  const char* file;
  std::string value;
};

std::vector<group_limit> wanted_limits(const group_limits& limits) {
  std::vector<group_limit> wanted;
  if (limits.memory > 0)
    wanted.push_back({"memory", "memory", "memory.max", std::to_string(limits.memory)});
  if (limits.processors > 0) {
    const unsigned quota = limits.processors * (kPeriod / 100);
    wanted.push_back(
        {"cpu", "cpu", "cpu.max", std::to_string(quota) + " " + std::to_string(kPeriod)});
  }
  if (limits.tasks > 0)
    wanted.push_back({"tasks", "pids", "pids.max", std::to_string(limits.tasks)});
  return wanted;
}

bool lists(const std::string& text, const std::string& word) {
  bool found = false;
  for_each_line(text, [&](const std::vector<std::string>& words) {
    for (const std::string& one : words)
      found = found || one == word;
  });
  return found;
}

/// Turns the controllers on that groups below `parent` need.
/// @return how many of the limits they can have, up to the first one that they cannot.
std::size_t offer_controllers(const std::string& parent, const std::vector<group_limit>& wanted) {
  const std::string offered = parent + "/cgroup.subtree_control";
  const auto refused = std::find_if(wanted.begin(), wanted.end(), [&](const group_limit& one) {
    if (lists(read_setting(offered), one.controller)) return false;
    return !lists(read_setting(parent + "/cgroup.controllers"), one.controller) ||
           !write_setting(offered, std::string("+") + one.controller);
  });
  return static_cast<std::size_t>(refused - wanted.begin());
}

group_failure set_limits(const std::string& directory, const std::vector<group_limit>& wanted) {
  for (const group_limit& one : wanted) {
    const std::string path = directory + "/" + one.file;
    if (!write_setting(path, one.value))
      return {one.key, "cannot write " + path + ": " + std::strerror(errno)};
  }
  return {};
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

group_failure control_group::make(const group_limits& limits, const std::string& name,
                                  const group_place& place) {
  remove();
  if (place.mount.empty() || place.own.empty())
    return {"", "there are no control groups of version 2"};
  const std::string own = place.mount + (place.own == "/" ? "" : place.own);
  std::vector<std::string> parents{own};
  if (place.own != "/") parents.push_back(own.substr(0, own.rfind('/')));
  const std::vector<group_limit> wanted = wanted_limits(limits);
  std::size_t most_offered = 0;
  for (const std::string& parent : parents) {
    const std::size_t offered = offer_controllers(parent, wanted);
    most_offered = std::max(most_offered, offered);
    if (offered < wanted.size()) continue;
    std::string directory = parent;
    directory.append("/").append(name);
    if (::mkdir(directory.c_str(), 0755) != 0) {
      if (errno != EEXIST) continue;
      kill_all(directory);
    }
    directory_ = directory;
    std::erase(left_, directory);
    group_failure failure = set_limits(directory, wanted);
    if (!failure.text.empty()) remove();
    return failure;
  }
  return {most_offered < wanted.size() ? wanted[most_offered].key : "",
          "the control group " + own + " is not delegated to the supervisor"};
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
