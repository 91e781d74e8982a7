#include "runner/file/process_stat.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <memory>
#include <string_view>

#include "common/misc/small_file.h"
#include "runner/file/values.h"
#include "runner/file/words.h"

namespace runner {
namespace {

struct close_directory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

}  // namespace

std::optional<process_stat> read_process_stat(pid_t pid) {
  std::string text;
  if (!read_small_file(AT_FDCWD, ("/proc/" + std::to_string(pid) + "/stat").c_str(), text))
    return {};
  // The name stands in parentheses and may hold any character.
  const std::size_t name_end = text.rfind(')');
  if (name_end == std::string::npos) return {};
  const auto fields = split_names(std::string_view(text).substr(name_end + 1));
  constexpr std::size_t kStarted = 19;
  if (fields.size() <= kStarted) return {};
  process_stat stat;
  stat.pid = pid;
  stat.state = fields[0].front();
  stat.parent = static_cast<pid_t>(parse_count(fields[1]).value_or(0));
  stat.session = static_cast<pid_t>(parse_count(fields[3]).value_or(0));
  stat.threads = static_cast<int>(parse_count(fields[17]).value_or(1));
  stat.started = parse_count(fields[kStarted]).value_or(0);
  if (stat.state == 'Z' || stat.state == 'X') return {};
  return stat;
}

std::string read_process_link(pid_t pid, const char* name) {
  const std::string path = "/proc/" + std::to_string(pid) + "/" + name;
  char target[PATH_MAX];
  const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
  return length < 0 ? "" : std::string(target, static_cast<std::size_t>(length));
}

bool find_number(const std::string& directory, const std::function<bool(int)>& look) {
  const std::unique_ptr<DIR, close_directory> stream(::opendir(directory.c_str()));
  if (!stream) return false;
  while (const dirent* const entry = ::readdir(stream.get())) {
    const auto number = parse_count(entry->d_name);
    if (number && look(static_cast<int>(*number))) return true;
  }
  return false;
}

}  // namespace runner
