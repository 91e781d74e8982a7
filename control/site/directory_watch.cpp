#include "control/site/directory_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace control {

directory_watch::directory_watch() : events_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}

void directory_watch::add_directory_of(const std::string& file) const {
  const std::string directory = file.substr(0, file.rfind('/') + 1);
  if (events_.valid()) {
    ::inotify_add_watch(events_.get(), directory.c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO);
  }
}

void directory_watch::wait() const {
  constexpr int kSecond = 1000;
  pollfd request{events_.get(), POLLIN, 0};
  ::poll(&request, 1, kSecond);
  char events[8192];
  while (::read(events_.get(), events, sizeof events) > 0) {
  }
}

}  // namespace control
