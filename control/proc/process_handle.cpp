#include "control/proc/process_handle.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>

#include "control/proc/deadline.h"

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
    const int ready = ::poll(&request, 1, poll_time_until(end));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

bool wait_all_ended(const std::vector<process_handle>& handles, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  return std::all_of(handles.begin(), handles.end(),
                     [&](const process_handle& one) { return one.wait_end(left_until(end)); });
}

}  // namespace control
