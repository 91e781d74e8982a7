#include <fcntl.h>
#include <unistd.h>

#include <chrono>

#include "common/misc/unique_fd.h"
#include "process/supervisor_signals.h"
#include "process/watch_pause.h"

/// Stands in for the pause of two seconds. Each pause is counted by a byte in a file, so that a
/// test can tell a new watch from the one before.
void pause_between_watches() {
  const unique_fd count(::open("pauses", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (::write(count.get(), ".", 1) != 1) {
    // The test then waits in vain, and says so.
  }
  supervisor_signals::wait(-1, std::chrono::milliseconds(10));
}
