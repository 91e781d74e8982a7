#include "control/proc/process_handle.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>

namespace control {

process_handle::process_handle(const proc_dir& proc, const process& known) : who_(known) {
  fd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, known.pid, 0)));
  if (!fd_.valid() && errno != ESRCH && errno != EINVAL)
    throw std::system_error(errno, std::generic_category(),
                            "no handle on PID " + std::to_string(known.pid));
  // Only now: what had that id before the handle existed says nothing about what the handle holds.
  if (fd_.valid() && !proc.is_alive(known)) fd_.reset();
}

bool process_handle::send(int signal) const {
  if (!valid()) {
    errno = ESRCH;
    return false;
  }
  return ::syscall(SYS_pidfd_send_signal, fd_.get(), signal, nullptr, 0) == 0;
}

bool process_handle::has_ended() const {
  return wait_end(std::chrono::milliseconds(0));
}

bool process_handle::wait_end(std::chrono::milliseconds limit) const {
  if (!valid()) return true;
  const auto end = std::chrono::steady_clock::now() + limit;
  pollfd request{fd_.get(), POLLIN, 0};
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    const int ready = ::poll(&request, 1, static_cast<int>(std::max<long>(left.count(), 0)));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

bool wait_all_ended(const std::vector<process_handle>& handles, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  for (const process_handle& one : handles) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (!one.wait_end(std::max(left, std::chrono::milliseconds(0)))) return false;
  }
  return true;
}

}  // namespace control
