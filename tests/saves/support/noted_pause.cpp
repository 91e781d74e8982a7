#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "common/misc/unique_fd.h"
#include "tests/support/watch_pause.h"

// Stands in for `ppoll` in the supervisor of the random sequences. Its pause is short, and it notes
// when each began and ended: a save in a pause need not be seen.

namespace {

/// Adds a line with the time, in nanoseconds of the clock that the tests use, too.
void note(char what) {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  const std::string line = what + std::to_string(std::chrono::nanoseconds(now).count()) + '\n';
  const unique_fd notes(::open("pauses", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (::write(notes.get(), line.data(), line.size()) < 0) {
    // The test then takes a save in the pause for one outside of it, and says that it was missed.
  }
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_ppoll(pollfd* requests, nfds_t count, const timespec* limit, const sigset_t* mask);

int __wrap_ppoll(pollfd* requests, nfds_t count, const timespec* limit, const sigset_t* mask) {
  if (!watch_pause::is_it(requests, limit)) return __real_ppoll(requests, count, limit, mask);
  note('b');
  watch_pause::pause_for(std::chrono::milliseconds(20), mask, __real_ppoll);
  note('e');
  return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
