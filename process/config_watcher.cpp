#include "process/config_watcher.h"

#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>

#include "common/log/console.h"
#include "common/misc/unique_fd.h"
#include "process/file_version.h"
#include "process/name_watch.h"
#include "process/server_config.h"
#include "process/supervisor_signals.h"

namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

/// Between two rounds. That a save in it is not seen is part of the interface.
constexpr std::chrono::seconds kPause{2};
/// A save in place counts as finished when nothing has changed for this long.
constexpr milliseconds kQuiet{50};
/// How long a save in place is waited for at most.
constexpr milliseconds kLongestSave{1000};
/// How long a tool may take between removing the file and making it anew.
constexpr milliseconds kLongestAbsence{500};
constexpr milliseconds kLookEvery{5};

/// Waits for a file that is absent. One that stays away has been deleted.
/// @return whether it is there.
bool await_file(const char* path) {
  const auto end = steady::now() + kLongestAbsence;
  while (!file_version::of(path)) {
    if (steady::now() >= end) return false;
    supervisor_signals::wait_and_deliver(-1, kLookEvery);
  }
  return true;
}

/// Waits until a save in place is complete. Most editors empty the file, or make a new one, before
/// they write it, and that is an event already. An empty file is a save that has got no further.
/// @return false when the file has gone meanwhile.
bool await_whole_file(const char* path) {
  const auto end = steady::now() + kLongestSave;
  auto quiet_since = steady::now();
  std::optional<file_version> last = file_version::of(path);
  while (last) {
    const auto now = steady::now();
    if (now >= end || (now - quiet_since >= kQuiet && last->size > 0)) return true;
    supervisor_signals::wait_and_deliver(-1, kLookEvery);
    const std::optional<file_version> current = file_version::of(path);
    if (current != last) quiet_since = steady::now();
    last = current;
  }
  return false;
}

/// Waits until a save is complete, however it is made: in place, by removing the file and making it
/// anew, or by moving the old one away first.
/// @return false when the file has been deleted.
bool await_save(const char* path) {
  while (await_file(path)) {
    if (await_whole_file(path)) return true;
  }
  return false;
}

/// A reload, in the handler of SIGUSR1 on this thread.
void reload() {
  ::pthread_kill(::pthread_self(), SIGUSR1);
  supervisor_signals::deliver();
}

/// Reloads again for what was saved during the last load, which may have read the old content: no
/// event will tell.
void catch_up(const char* path) {
  while (has_changed_since_load(path)) {
    if (!await_save(path) || !has_changed_since_load(path)) return;
    reload();
  }
}

/// Says what the supervisor would have needed to go on. The line before, which is part of the
/// interface, only names a call.
void explain_end(const char* path, int error) {
  char reason[256];
  std::snprintf(
      reason, sizeof reason,
      "%s cannot be watched, so everything ends. It has to be there, and user %u has to be "
      "able to read and write it and to enter its directory (%s). run.pid stays and "
      "blocks the next start",
      path == nullptr ? "(null)" : path, ::geteuid(), std::strerror(error));
  console::report_failure("keelmond", reason);
}

/// The watch on the file, and beside it those on its name, on one instance.
struct watches {
  unique_fd instance;
  int file;
  /// A save had removed the file and was completed after the pause.
  bool had_to_wait;
  std::optional<file_version> watched;
  name_watch names;
};

/// @return none when the watcher has to give up; it has said why.
std::optional<watches> set_watches(const char* path) {
  unique_fd instance(::inotify_init1(IN_CLOEXEC));
  if (!instance.valid()) {
    console::report_error("inotify_init");
    return std::nullopt;
  }
  const bool is_absent = !file_version::of(path);
  const bool had_to_wait = is_absent && await_file(path);
  std::optional<file_version> watched = file_version::of(path);
  const int file = ::inotify_add_watch(instance.get(), path, IN_MODIFY);
  if (file == -1) {
    const int error = errno;
    console::report_error("inotify_add_watch");
    explain_end(path, error);
    return std::nullopt;
  }
  name_watch names(instance.get(), path);
  return watches{std::move(instance), file, had_to_wait, watched, std::move(names)};
}

/// Whether another file than the watched one has the name now.
bool is_replaced(const char* path, const watches& set) {
  const std::optional<file_version> current = file_version::of(path);
  return current && set.watched && !current->is_same_file_as(*set.watched);
}

/// Waits for something that concerns the file.
/// @return what it was; none when the events could not be read.
std::optional<name_watch::finding> await_event(const char* path, const watches& set) {
  // It was moved away while only the file was watched, and no event tells of that.
  if (is_replaced(path, set)) return name_watch::finding::changed;
  alignas(inotify_event) char events[1024];
  for (;;) {
    supervisor_signals::wait_and_deliver(set.instance.get(), std::nullopt);
    std::memset(events, 0, sizeof events);
    const ssize_t got = ::read(set.instance.get(), events, sizeof events);
    if (got < 0) return std::nullopt;
    const auto found = set.names.judge(events, static_cast<std::size_t>(got));
    if (found != name_watch::finding::nothing) return found;
  }
}

/// Whether the file that has the name now was moved there, so that it is whole.
bool is_whole(const char* path, const watches& set, name_watch::finding found) {
  return set.names.sees_the_name() ? found == name_watch::finding::replaced
                                   : is_replaced(path, set);
}

/// One round of the watch. Any event counts: one modification may be several, and a file that is
/// deleted or replaced may report only that its watch is gone.
/// @return false when the watcher has to give up.
bool watch_once(const char* path, bool is_first) {
  const std::optional<watches> set = set_watches(path);
  if (!set) return false;
  if (is_first || set->had_to_wait) catch_up(path);
  const auto found = await_event(path, *set);
  if (!found) {
    console::report_error("read");
    return true;
  }
  if (!is_whole(path, *set, *found)) await_save(path);
  reload();
  // Before the watch goes: whoever sees no watch takes it for the pause.
  catch_up(path);
  ::inotify_rm_watch(set->instance.get(), set->file);
  return true;
}

}  // namespace

void* watch_file(void* argument) {
  const auto* const path = static_cast<const char*>(argument);
  for (bool is_first = true; watch_once(path, is_first); is_first = false)
    supervisor_signals::wait_and_deliver(-1, kPause);
  return nullptr;
}

void server_config_changed(int sig) {
  if (sig != SIGUSR1) return;
  const int errno_before = errno;
  try {
    loadServerConfig(kConfigPath);
  } catch (const std::exception& failure) {
    // Out of memory, most likely. The programs run on, and the next reload tries again.
    console::report_failure("loadServerConfig", failure.what());
  }
  errno = errno_before;
}

void monitorServerConfig(const char* path) {
  supervisor_signals::handle(SIGUSR1, server_config_changed);
  void* argument = const_cast<char*>(path);
  pthread_t watcher{};
  if (::pthread_create(&watcher, nullptr, watch_file, argument) == 0) {
    ::pthread_join(watcher, nullptr);
  } else {
    watch_file(argument);
  }
}
