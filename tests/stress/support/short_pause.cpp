#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <tuple>

#include "common/misc/unique_fd.h"
#include "tests/support/watch_pause.h"

// Stands in for `ppoll` in the supervisor that the stress tests start as the fast one. Its pause
// takes 10 milliseconds, and a file tells from when to when nothing was watched, so that a test can
// tell a new watch from the one before, and a save in a pause from one outside of it. Closing the
// watches can take longer than this pause, so it begins when the first of them is removed.

namespace {

/// When the watch was removed; 0 while one is set.
std::int64_t removed = 0;

std::int64_t now() {
  return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void note(std::int64_t time) {
  const unique_fd notes(::open("pauses", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  // Where that fails the test waits in vain, and says so.
  std::ignore = ::write(notes.get(), &time, sizeof time);
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_inotify_rm_watch(int instance, int watch);

int __wrap_inotify_rm_watch(int instance, int watch) {
  if (removed == 0) removed = now();
  return __real_inotify_rm_watch(instance, watch);
}

int __real_ppoll(pollfd* requests, nfds_t count, const timespec* limit, const sigset_t* mask);

int __wrap_ppoll(pollfd* requests, nfds_t count, const timespec* limit, const sigset_t* mask) {
  if (!watch_pause::matches(requests, limit)) return __real_ppoll(requests, count, limit, mask);
  note(removed != 0 ? removed : now());
  removed = 0;
  watch_pause::pause_for(std::chrono::milliseconds(10), mask, __real_ppoll);
  note(now());
  return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
