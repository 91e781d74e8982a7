#include "process/server_config.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <memory_resource>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "common/inifile/ini_parser.h"
#include "common/log/console.h"
#include "common/misc/bounded_text.h"
#include "common/misc/fun_misc.h"
#include "common/thread/unforked_memory.h"
#include "process/capacity.h"
#include "process/file_version.h"
#include "process/recorder.h"

std::vector<Tfun_monitor*> monitor_list;

namespace {

constexpr char kOwnSection[] = "keelmond";
constexpr std::size_t kNameSize = 128;
constexpr std::size_t kExepathSize = 512;
/// What a monitor can hold.
constexpr std::size_t kStateSize = 128;

/// The file as it was when the last load began.
struct last_load {
  bool any = false;
  std::optional<file_version> version{};
};
last_load g_last_load;

/// One program as the file describes it.
struct entry {
  int number = 0;
  char name[kNameSize] = {};
  char exepath[kExepathSize] = {};
  char state[kStateSize] = {};
};

/// Monitors by name. Where two have the same name, the one that was created first.
using monitor_index = std::pmr::unordered_map<std::string_view, Tfun_monitor*>;

/// The number i of a key "svri", written as printf's %d would write it; 0 for any other key.
int entry_number(std::string_view key) {
  constexpr std::string_view kPrefix = "svr";
  if (!key.starts_with(kPrefix)) return 0;
  key.remove_prefix(kPrefix.size());
  if (key.empty() || key.front() < '1' || key.front() > '9') return 0;
  int number = 0;
  const auto [end, error] = std::from_chars(key.data(), key.data() + key.size(), number);
  return error == std::errc{} && end == key.data() + key.size() ? number : 0;
}

/// The numbers from 1 to `count` that the file has a key for, in ascending order. Missing numbers
/// are skipped anyway, so a count of two thousand million costs nothing.
std::vector<int> listed_numbers(const Tini_parser& config, int count) {
  std::vector<int> numbers;
  for (const std::string& key : config.section_keys(kOwnSection)) {
    const int number = entry_number(key);
    if (number > 0 && number <= count) numbers.push_back(number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

/// How many of these entries are to run.
std::size_t count_wanted(const Tini_parser& config, const std::vector<int>& numbers) {
  const auto wanted = std::count_if(numbers.begin(), numbers.end(), [&](int number) {
    const std::string name = config.read_string(kOwnSection, "svr" + std::to_string(number), "");
    return !name.empty() && config.read_string(name, "state", "") == "run";
  });
  return static_cast<std::size_t>(wanted);
}

void log_refusal(const entry& refused, const char* key, std::size_t limit) {
  char message[768] = {};
  std::snprintf(message, sizeof message,
                "server.ini: entry svr%d (%s) refused: %s is longer than %zu bytes or holds a NUL "
                "byte.\r\n",
                refused.number, refused.name, key, limit);
  recorder::append(message);
}

/// Takes a value over whole, or refuses the entry. A NUL byte in it would hide what follows.
template <std::size_t N>
bool take_value(const entry& owner, const char* key, const std::string& value, char (&out)[N]) {
  if (value.size() < N && value.find('\0') == std::string::npos)
    return copy_bounded(out, value.c_str());
  log_refusal(owner, key, N - 1);
  return false;
}

/// Makes the program's path out of the working directory and its name.
bool take_own_path(entry& out) {
  errno = 0;
  if (Tfun_misc::get_current_path(out.exepath, out.name)) return true;
  if (errno == 0) {
    log_refusal(out, "exepath", sizeof out.exepath - 1);
    return false;
  }
  char message[768] = {};
  std::snprintf(message, sizeof message,
                "server.ini: entry svr%d (%s) refused: the working directory has no path (%s).\r\n",
                out.number, out.name, std::strerror(errno));
  recorder::append(message);
  return false;
}

/// Reads the entry with the given number.
/// @return false when there is nothing to act on: it is empty, refused, or its program is missing.
bool read_entry(const Tini_parser& config, int number, entry& out) {
  out.number = number;
  char key[128] = {};
  std::snprintf(key, sizeof key, "svr%d", number);
  const std::string name = config.read_string(kOwnSection, key, "");
  if (name.empty() || !take_value(out, key, name, out.name)) return false;
  console::print("read ini file %s \r\n", out.name);

  if (!take_value(out, "exepath", config.read_string(name, "exepath", ""), out.exepath) ||
      !take_value(out, "state", config.read_string(name, "state", ""), out.state)) {
    return false;
  }
  return out.exepath[0] != '\0' || take_own_path(out);
}

/// Whether the entry's program can be run. One that is missing is skipped without a word, one that
/// may not be executed with a line in the log.
bool is_executable(const entry& program) {
  if (!Tfun_misc::file_exists(program.exepath)) return false;
  if (::access(program.exepath, X_OK) == 0) return true;
  const int error = errno;
  char message[768] = {};
  std::snprintf(message, sizeof message, "access(X_OK) .errno:%d error:%s (%s)\n", error,
                std::strerror(error), program.exepath);
  recorder::append(message);
  return false;
}

void reconcile_known(Tfun_monitor& monitor, const entry& wanted) {
  const std::string_view state = wanted.state;
  // Nothing but the state, on purpose: a new command does not disturb a program that runs.
  monitor.update_state(wanted.state);
  if (state == "stop") {
    console::print("monitor %s stopped.\r\n", wanted.name);
    monitor.stop_process();
    Tfun_misc::UpdateProcessLiveFile(wanted.name, false);
  } else if (state == "run") {
    console::print("monitor %s Start 11.\r\n", wanted.name);
    // A monitor that has had a program is never given another thread: its own sees the state, or
    // has ended at the restart limit, and that end is final on purpose.
    if (monitor.last_pid() == 0) {
      monitor.Start();
      console::print("monitor %s Start 22.\r\n", wanted.name);
    }
    // Whether or not anything changed, on purpose: a mark that was lost is back after a reload.
    Tfun_misc::UpdateProcessLiveFile(wanted.name, true);
  }
}

void reconcile_unknown(monitor_index& monitors, const entry& wanted) {
  const std::string_view state = wanted.state;
  if (state == "stop") {
    console::print("monitor %s stopped 333.\r\n", wanted.name);
    Tfun_misc::UpdateProcessLiveFile(wanted.name, false);
  } else if (state == "run") {
    console::print("monitor %s Start 333.\r\n", wanted.name);
    auto created = std::make_unique<Tfun_monitor>(wanted.exepath, wanted.name, wanted.state);
    monitor_list.push_back(created.get());
    Tfun_monitor* monitor = created.release();
    monitors.emplace(monitor->program_name(), monitor);
    monitor->Start();
    Tfun_misc::UpdateProcessLiveFile(wanted.name, true);
  }
}

void reconcile(monitor_index& monitors, const entry& wanted) {
  const auto found = monitors.find(wanted.name);
  if (found != monitors.end()) {
    reconcile_known(*found->second, wanted);
  } else {
    reconcile_unknown(monitors, wanted);
  }
}

monitor_index index_monitors(std::pmr::memory_resource* memory) {
  monitor_index monitors(memory);
  monitors.reserve(monitor_list.size());
  for (Tfun_monitor* monitor : monitor_list)
    monitors.emplace(monitor->program_name(), monitor);
  return monitors;
}

}  // namespace

void loadServerConfig(const char* path) {
  const bool is_first = !g_last_load.any;
  console::print("loadServerConfig : %s\r\n", path);
  // Programs are launched while this goes on, and a child keeps what it is born with.
  std::pmr::monotonic_buffer_resource memory(unforked_memory::resource());
  // Before the reading: a save that comes in between is then taken for one more, not for none.
  g_last_load = {true, file_version::of(path)};
  recorder::follow_time_zone();
  const Tini_parser config{std::string(path), &memory};
  monitor_index monitors = index_monitors(&memory);
  const int count = config.read_int(kOwnSection, "linux", 0);
  const std::vector<int> numbers = listed_numbers(config, count);
  if (is_first) capacity::warn_before(count_wanted(config, numbers));
  for (const int number : numbers) {
    entry program;
    if (read_entry(config, number, program) && is_executable(program)) {
      reconcile(monitors, program);
    }
  }
}

bool has_changed_since_load(const char* path) {
  return g_last_load.any && file_version::of(path) != g_last_load.version;
}
