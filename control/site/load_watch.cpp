#include "control/site/load_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstring>
#include <thread>

#include "control/proc/deadline.h"

namespace control {
namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

bool take_events(int fd) {
  alignas(inotify_event) char events[4096];
  const ssize_t got = ::read(fd, events, sizeof events);
  bool closed = false;
  for (ssize_t at = 0; at < got;) {
    inotify_event event;
    std::memcpy(&event, events + at, sizeof event);
    closed = closed || (event.mask & IN_CLOSE_WRITE) != 0;
    at += static_cast<ssize_t>(sizeof event + event.len);
  }
  return closed;
}

}  // namespace

load_watch::load_watch(const proc_dir& proc, const process& daemon, const std::string& file)
    : proc_(proc),
      daemon_(proc, daemon),
      tells_of_signals_(proc.lets_in(daemon.pid, SIGUSR1)),
      events_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (events_.valid()) ::inotify_add_watch(events_.get(), file.c_str(), IN_CLOSE_WRITE);
}

bool load_watch::wait(milliseconds limit) {
  const auto end = steady::now() + limit;
  return daemon_.valid() && wait_read(end) && wait_settled(end);
}

bool load_watch::wait_read(steady::time_point end) {
  pollfd requests[] = {{events_.get(), POLLIN, 0}, {daemon_.fd(), POLLIN, 0}};
  while (!read_) {
    const int ready = ::poll(requests, 2, poll_time_until(end));
    if (ready == 0 || requests[1].revents != 0) return false;
    if (requests[0].revents != 0) read_ = take_events(events_.get());
  }
  return true;
}

bool load_watch::wait_settled(steady::time_point end) const {
  while (tells_of_signals_ && !proc_.lets_in(daemon_.who().pid, SIGUSR1)) {
    if (daemon_.has_ended() || steady::now() >= end) return false;
    std::this_thread::sleep_for(milliseconds(2));
  }
  return true;
}

}  // namespace control
