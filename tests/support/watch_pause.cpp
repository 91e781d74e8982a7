#include "tests/support/watch_pause.h"

#include <cerrno>

namespace watch_pause {

bool matches(const pollfd* requests, const timespec* limit) noexcept {
  return requests != nullptr && requests->fd == -1 && limit != nullptr && limit->tv_sec >= 1;
}

void pause_for(std::chrono::milliseconds time, const sigset_t* mask, system_ppoll real) noexcept {
  const timespec limit{0, std::chrono::nanoseconds(time).count()};
  while (real(nullptr, 0, &limit, mask) < 0 && errno == EINTR) {
  }
}

}  // namespace watch_pause
