#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>

#include "common/misc/unique_fd.h"

// Stands in for `ppoll` in the supervisor that the stress tests start as the fast one. A wait for
// nothing but a second or more is the pause between two watches. It takes 10 milliseconds here, and
// a byte in a file counts it, so that a test can tell a new watch from the one before.

namespace {

constexpr std::chrono::milliseconds kPause{10};

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
  const bool is_pause =
      count == 1 && requests[0].fd == -1 && limit != nullptr && limit->tv_sec >= 1;
  if (!is_pause) return __real_ppoll(requests, count, limit, mask);
  count_pause();
  constexpr timespec kLimit{0, std::chrono::nanoseconds(kPause).count()};
  // Handlers that run must not make two pauses of it.
  while (__real_ppoll(requests, count, &kLimit, mask) < 0 && errno == EINTR) {
  }
  return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
