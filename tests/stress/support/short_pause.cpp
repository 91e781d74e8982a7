#include <fcntl.h>
#include <unistd.h>

#include "common/misc/unique_fd.h"
#include "tests/support/watch_pause.h"

// Stands in for `ppoll` in the supervisor that the stress tests start as the fast one. Its pause
// takes 10 milliseconds, and a byte in a file counts it, so that a test can tell a new watch from the
// one before.

namespace {

void count_pause() {
  const unique_fd count(::open("pauses", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (::write(count.get(), ".", 1) != 1) {
    // The test then waits in vain, and says so.
  }
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_ppoll(pollfd* requests, nfds_t count, const timespec* limit, const sigset_t* mask);

int __wrap_ppoll(pollfd* requests, nfds_t count, const timespec* limit, const sigset_t* mask) {
  if (!watch_pause::is_it(requests, limit)) return __real_ppoll(requests, count, limit, mask);
  count_pause();
  watch_pause::pause_for(std::chrono::milliseconds(10), mask, __real_ppoll);
  return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
