#include "process/config_watcher.h"

#include <pthread.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <optional>

#include "common/misc/console.h"
#include "common/misc/unique_fd.h"
#include "process/server_config.h"
#include "process/supervisor_signals.h"
#include "process/watch_pause.h"

namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

/// A save in place counts as finished when nothing has changed for this long.
constexpr milliseconds kQuiet{50};
/// How long a save in place is waited for at most.
constexpr milliseconds kLongestSave{1000};
constexpr milliseconds kLookEvery{5};

/// What changes when a file is written to.
struct file_version {
  dev_t device;
  ino_t inode;
  off_t size;
  timespec modified;

  [[nodiscard]] bool same_file(const file_version& other) const {
    return device == other.device && inode == other.inode;
  }
  [[nodiscard]] bool same_content(const file_version& other) const {
    return size == other.size && modified.tv_sec == other.modified.tv_sec &&
           modified.tv_nsec == other.modified.tv_nsec;
  }
};

std::optional<file_version> version_of(const char* path) {
  struct stat status {};
  if (::stat(path, &status) != 0) return std::nullopt;
  return file_version{status.st_dev, status.st_ino, status.st_size, status.st_mtim};
}

/// Lets a save in place become whole: most editors empty the file first and write it then, and the
/// first of the two is already a modification. A file that was replaced is whole from the start,
/// and one that is gone stays gone; neither is waited for. An empty file is a save that has not got
/// further yet.
void await_whole_file(const char* path, const std::optional<file_version>& watched) {
  const auto end = steady::now() + kLongestSave;
  auto quiet_since = steady::now();
  std::optional<file_version> last = version_of(path);
  while (last && watched && last->same_file(*watched)) {
    const auto now = steady::now();
    if (now >= end || (now - quiet_since >= kQuiet && last->size > 0)) return;
    supervisor_signals::wait(-1, kLookEvery);
    const std::optional<file_version> current = version_of(path);
    if (!current || !current->same_content(*last)) quiet_since = steady::now();
    last = current;
  }
}

/// One round of the watch.
/// @return false when the watcher has to give up.
bool watch_once(const char* path) {
  const unique_fd instance(::inotify_init1(IN_CLOEXEC));
  if (!instance.valid()) {
    console::report_error("inotify_init");
    return false;
  }
  const int watch = ::inotify_add_watch(instance.get(), path, IN_MODIFY);
  if (watch == -1) {
    console::report_error("inotify_add_watch");
    return false;
  }
  const std::optional<file_version> watched = version_of(path);
  supervisor_signals::wait(instance.get(), std::nullopt);

  // Any event counts. A file that is deleted or replaced reports that its watch is gone, and that
  // is the only way in which a save by rename is seen.
  char events[1024] = {};
  if (::read(instance.get(), events, sizeof events) < 0) {
    console::report_error("read");
    return true;
  }
  await_whole_file(path, watched);
  ::pthread_kill(::pthread_self(), SIGUSR1);
  supervisor_signals::deliver();
  ::inotify_rm_watch(instance.get(), watch);
  return true;
}

}  // namespace

void* watch_file(void* path) {
  while (watch_once(static_cast<const char*>(path)))
    pause_between_watches();
  return nullptr;
}

void server_config_changed(int sig) {
  const supervisor_signals::handler_scope alone;
  if (sig != SIGUSR1) return;
  try {
    loadServerConfig(kConfigPath);
  } catch (const std::exception& failure) {
    // Out of memory, most likely. The programs run on, and the next reload tries again.
    console::report_failure("loadServerConfig", failure.what());
  }
}

void monitorServerConfig(const char* path) {
  ::signal(SIGUSR1, server_config_changed);
  void* argument = const_cast<char*>(path);
  pthread_t watcher{};
  if (::pthread_create(&watcher, nullptr, watch_file, argument) == 0) {
    ::pthread_join(watcher, nullptr);
  } else {
    watch_file(argument);
  }
}
