#include "runner/supervise/known_process.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>

namespace runner {

known_process::known_process(const process_stat& who)
    : who_(who), handle_(static_cast<int>(::syscall(SYS_pidfd_open, who.pid, 0))) {
  // Only now: what had that id before the handle existed says nothing about what the handle holds.
  was_there_ = is_listed();
}

bool known_process::is_listed() const {
  const auto now = read_process_stat(who_.pid);
  return now && now->started == who_.started;
}

bool known_process::has_ended() const {
  if (!was_there_) return true;
  if (!handle_.valid()) return !is_listed();
  pollfd request{handle_.get(), POLLIN, 0};
  return ::poll(&request, 1, 0) > 0;
}

bool known_process::send(int signal) const {
  if (!was_there_) return false;
  if (handle_.valid())
    return ::syscall(SYS_pidfd_send_signal, handle_.get(), signal, nullptr, 0) == 0;
  return is_listed() && ::kill(who_.pid, signal) == 0;
}

}  // namespace runner
