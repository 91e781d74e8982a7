#include "common/daemon/start_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <chrono>
#include <thread>

void start_lock::acquire() {
  directory_.reset(::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory_.valid()) return;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (::flock(directory_.get(), LOCK_EX | LOCK_NB) != 0 &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

void start_lock::release() {
  if (directory_.valid()) ::flock(directory_.get(), LOCK_UN);
  directory_.reset();
}
