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
#include "common/thread/unforked_memory.h"
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
/// Longer than a tick of the kernel's clock for files.
constexpr milliseconds kLongestTick{20};
/// How often a save that does not end is loaded before the pause comes all the same.
constexpr int kMostLoads = 60;

/// Whether the file had changed when the last load was over. The watcher's thread alone uses it,
/// the handler on it included.
bool g_is_outdated = true;

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
/// anew, or by moving the old one away first. One that comes and goes is not waited for without
/// end.
/// @return false when the file has been deleted.
bool await_save(const char* path) {
  const auto end = steady::now() + kLongestAbsence + kLongestSave;
  while (await_file(path)) {
    if (await_whole_file(path) || steady::now() >= end) return true;
  }
  return false;
}

/// Waits until a file that was moved in can be told from what is written to it next.
/// @return whether it is there, and the same.
bool await_tick(const char* path) {
  const std::optional<file_version> moved_in = file_version::of(path);
  // One from the future never can.
  const auto end = steady::now() + kLongestTick;
  while (moved_in && moved_in->is_of_this_tick() && steady::now() < end)
    supervisor_signals::wait_and_deliver(-1, milliseconds(1));
  return moved_in && file_version::of(path) == moved_in;
}

/// A reload, in the handler of SIGUSR1 on this thread.
void reload() {
  ::pthread_kill(::pthread_self(), SIGUSR1);
  supervisor_signals::deliver();
}

/// Reloads again for what was saved during the last load, which may have read the old content: no
/// event will tell.
/// @param is_there whether the file has been there. If it has gone since, it is waited for.
/// @param most loads at most.
/// @return false when the file has been deleted.
bool catch_up(const char* path, bool is_there, int most = kMostLoads) {
  for (int loads = 0; loads < most; ++loads) {
    if (is_there && !await_file(path)) return false;
    if (!has_changed_since_load(path)) return is_there;
    is_there = await_save(path);
    if (!is_there || !has_changed_since_load(path)) return is_there;
    reload();
  }
  return is_there;
}

/// Says what the supervisor would have needed to go on. The line before, which is part of the
/// interface, only names a call.
void explain_end(const char* path, const char* need, int error) {
  char reason[512];
  std::snprintf(reason, sizeof reason,
                "%s cannot be watched, so keelmond shuts down. %s (%s). run.pid stays and blocks "
                "the next start",
                path == nullptr ? "(null)" : path, need, std::strerror(error));
  console::report_failure("keelmond", reason);
}

void report_no_instance(const char* path) {
  const int error = errno;
  console::report_error("inotify_init");
  char need[160];
  std::snprintf(need, sizeof need,
                "User %u has to have an inotify instance left (fs.inotify.max_user_instances), and "
                "keelmond a descriptor (ulimit -n)",
                ::geteuid());
  explain_end(path, need, error);
}

void report_no_watch(const char* path, int error) {
  errno = error;
  console::report_error("inotify_add_watch");
  char need[160];
  std::snprintf(need, sizeof need,
                "It has to be there, and user %u has to be able to read and write it and to enter "
                "its directory",
                ::geteuid());
  explain_end(path, need, error);
}

/// The watch on the file itself.
struct file_watch {
  /// -1 when there is none, because of `error`.
  int number = -1;
  int error = 0;
  /// A save had removed the file and was completed after the pause.
  bool had_to_wait = false;
  std::optional<file_version> watched{};
};

/// A file that is being made anew is absent at first, and then perhaps not its user's yet.
bool may_pass(int error) {
  return error == ENOENT || error == EACCES;
}

file_watch watch_itself(int instance, const char* path) {
  const auto end = steady::now() + kLongestAbsence;
  file_watch set;
  for (;;) {
    set.watched = file_version::of(path);
    set.number = ::inotify_add_watch(instance, path, IN_MODIFY);
    set.error = errno;
    if (!set.watched) set.had_to_wait = true;
    if (set.number != -1 || !may_pass(set.error) || steady::now() >= end) return set;
    set.had_to_wait = true;
    supervisor_signals::wait_and_deliver(-1, kLookEvery);
  }
}

/// The watch on the file, and beside it those on its name, on one instance.
struct watches {
  unique_fd instance;
  file_watch file;
  name_watch names;
};

/// @return none when the watcher has to give up; it has said why.
std::optional<watches> set_watches(const char* path) {
  unique_fd instance(::inotify_init1(IN_CLOEXEC));
  if (!instance.valid()) {
    report_no_instance(path);
    return std::nullopt;
  }
  const file_watch file = watch_itself(instance.get(), path);
  if (file.number == -1) {
    report_no_watch(path, file.error);
    return std::nullopt;
  }
  name_watch names(instance.get(), path);
  return watches{std::move(instance), file, std::move(names)};
}

/// Whether another file than the watched one has the name now.
bool is_replaced(const char* path, const watches& set) {
  const std::optional<file_version> current = file_version::of(path);
  return current && set.file.watched && !current->is_same_file_as(*set.file.watched);
}

/// Sets the watches, and loads what was saved while none stood.
/// @return as `set_watches`.
std::optional<watches> begin_round(const char* path) {
  for (;;) {
    std::optional<watches> set = set_watches(path);
    const bool may_have_missed = set && (g_is_outdated || set->file.had_to_wait);
    if (!may_have_missed || !has_changed_since_load(path)) return set;
    catch_up(path, true);
    g_is_outdated = false;
    // What has been loaded may be another file than the watched one. It is no event any more.
    if (has_changed_since_load(path) || !is_replaced(path, *set)) return set;
  }
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
bool is_moved_in(const char* path, const watches& set, name_watch::finding found) {
  return set.names.sees_the_name() ? found == name_watch::finding::replaced
                                   : is_replaced(path, set);
}

/// One round of the watch. Any event counts: one modification may be several, and a file that is
/// deleted or replaced may report only that its watch is gone.
/// @return false when the watcher has to give up.
bool watch_once(const char* path) {
  const std::optional<watches> set = begin_round(path);
  if (!set) return false;
  const auto found = await_event(path, *set);
  if (!found) {
    console::report_error("read");
    return true;
  }
  // A link that was moved in may lead to a file that is yet to be made.
  bool is_there = (is_moved_in(path, *set, *found) && await_tick(path)) || await_save(path);
  reload();
  // Before the watch goes: whoever sees no watch takes it for the pause.
  is_there = catch_up(path, is_there);
  ::inotify_rm_watch(set->instance.get(), set->file.number);
  // For what came between the last look and the removal.
  catch_up(path, is_there, 1);
  return true;
}

}  // namespace

void* watch_file(void* argument) {
  const auto* const path = static_cast<const char*>(argument);
  // The first load had no watch, and one in the pause has none: what is saved meanwhile is found by
  // comparing. The rest of the pause is blind.
  for (g_is_outdated = true; watch_once(path);) {
    g_is_outdated = false;
    supervisor_signals::wait_and_deliver(-1, kPause);
  }
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
  g_is_outdated = has_changed_since_load(kConfigPath);
  errno = errno_before;
}

void monitorServerConfig(const char* path) {
  supervisor_signals::handle(SIGUSR1, server_config_changed);
  void* argument = const_cast<char*>(path);
  pthread_t watcher{};
  if (::pthread_create(&watcher, nullptr, watch_file, argument) == 0) {
    unforked_memory::add_stack_of(watcher);
    ::pthread_join(watcher, nullptr);
  } else {
    watch_file(argument);
  }
}
