#include "process/server_config.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
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
#include "common/misc/fun_misc.h"
#include "common/thread/unforked_memory.h"
#include "process/capacity.h"
#include "process/file_version.h"
#include "process/recorder.h"
#include "process/server_entry.h"

std::vector<Tfun_monitor*> monitor_list;

namespace {

using server_entry::entry;
using server_entry::obstacle;
using server_entry::refusal;

/// The file as it was when the last load began.
struct last_load {
  bool any = false;
  std::optional<file_version> version{};
};
last_load g_last_load;

/// Monitors by name. Where two have the same name, the one that was created first.
using monitor_index = std::pmr::unordered_map<std::string_view, Tfun_monitor*>;

/// How many of these entries are to run.
std::size_t count_wanted(const Tini_parser& config, const std::vector<int>& numbers) {
  const auto wanted = std::count_if(numbers.begin(), numbers.end(), [&](int number) {
    const std::string name = server_entry::name_of(config, number);
    return !name.empty() && config.read_string(name, server_entry::kStateKey, "") == "run";
  });
  return static_cast<std::size_t>(wanted);
}

void log_refusal(const entry& refused, const char* key, std::size_t limit) {
  char message[recorder::kLineSize] = {};
  std::snprintf(message, sizeof message,
                "server.ini: entry svr%d (%s) refused: %s is longer than %zu bytes or holds a NUL "
                "byte.\r\n",
                refused.number, refused.name, key, limit);
  recorder::append(message);
}

/// Makes the program's path out of the working directory and its name.
bool take_own_path(entry& out) {
  errno = 0;
  if (Tfun_misc::get_current_path(out.exepath, out.name)) return true;
  if (errno == 0) {
    log_refusal(out, server_entry::kExepathKey, server_entry::kLongestExepath);
    return false;
  }
  char message[recorder::kLineSize] = {};
  std::snprintf(message, sizeof message,
                "server.ini: entry svr%d (%s) refused: the path of the working directory cannot be "
                "read (%s).\r\n",
                out.number, out.name, std::strerror(errno));
  recorder::append(message);
  return false;
}

/// Reads the entry with the given number.
/// @return false when there is nothing to act on: it is empty, refused, or has no path.
bool read_entry(const Tini_parser& config, int number, entry& out) {
  out.number = number;
  const std::string name = server_entry::name_of(config, number);
  if (name.empty()) return false;
  if (server_entry::take_name(name, out) != refusal::none) {
    log_refusal(out, server_entry::key_of(number).c_str(), server_entry::kLongestName);
    return false;
  }
  console::print("read ini file %s \r\n", out.name);

  const refusal refused = server_entry::take_values(config, out);
  if (refused == refusal::exepath)
    log_refusal(out, server_entry::kExepathKey, server_entry::kLongestExepath);
  if (refused == refusal::state)
    log_refusal(out, server_entry::kStateKey, server_entry::kLongestState);
  if (refused != refusal::none) return false;
  return out.exepath[0] != '\0' || take_own_path(out);
}

/// Looks whether the entry's program can be run. One that is missing is skipped without a word, one
/// that may not be executed with a line in the log.
bool check_executable(const entry& program) {
  const obstacle found = server_entry::find_obstacle(program.exepath);
  const int error = errno;
  if (found != obstacle::not_executable) return found == obstacle::none;
  char message[recorder::kLineSize] = {};
  std::snprintf(message, sizeof message, "access(X_OK) .errno:%d error:%s (%s)\n", error,
                std::strerror(error), program.exepath);
  recorder::append(message);
  return false;
}

void reconcile_known(Tfun_monitor& monitor, const entry& wanted) {
  const std::string_view state = wanted.state;
  // Nothing but the state: a new command counts when keelmond is started the next time.
  monitor.update_state(wanted.state);
  if (state == "stop") {
    console::print("monitor %s stopped.\r\n", wanted.name);
    monitor.stop_process();
    Tfun_misc::UpdateProcessLiveFile(wanted.name, false);
  } else if (state == "run") {
    console::print("monitor %s Start 11.\r\n", wanted.name);
    // A monitor that has had a program is never given another thread: its own sees the state, or
    // has ended at the restart limit, and that end is final.
    if (monitor.last_pid() == 0) {
      monitor.Start();
      console::print("monitor %s Start 22.\r\n", wanted.name);
    }
    // Whether or not anything changed: a mark that was lost is back after a reload.
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
  // Programs are launched while this goes on, and a child keeps what is there at the fork.
  std::pmr::monotonic_buffer_resource memory(unforked_memory::resource());
  // Before the reading: a save that comes in between is then taken for one more, not for none.
  g_last_load = {true, file_version::of(path)};
  recorder::follow_time_zone();
  const Tini_parser config{std::string(path), &memory};
  monitor_index monitors = index_monitors(&memory);
  const std::vector<int> numbers = server_entry::listed_numbers(config);
  if (is_first) capacity::warn_before(count_wanted(config, numbers));
  for (const int number : numbers) {
    entry program;
    if (read_entry(config, number, program) && check_executable(program)) {
      reconcile(monitors, program);
    }
  }
}

bool has_changed_since_load(const char* path) {
  return g_last_load.any && file_version::of(path) != g_last_load.version;
}
