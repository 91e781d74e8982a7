#include "common/daemon/start_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <chrono>

#include "common/misc/poll_until.h"

void start_lock::acquire() {
  directory_.reset(::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory_.valid()) return;
  poll_until(std::chrono::seconds(10), std::chrono::milliseconds(2),
             [this] { return ::flock(directory_.get(), LOCK_EX | LOCK_NB) == 0; });
}

void start_lock::release() {
  if (directory_.valid()) ::flock(directory_.get(), LOCK_UN);
  directory_.reset();
}
