#pragma once

#include <chrono>
#include <vector>

#include "common/misc/unique_fd.h"
#include "control/proc/proc_dir.h"
#include "control/proc/process.h"

namespace control {

/// Holds on to one process, so that a signal can reach nobody else: not even when the process ends
/// and its id is given to another one.
class process_handle final {
 public:
  /// Takes hold of `known`. The handle is not valid when that process has ended, or when a later
  /// one has its id by now.
  /// @throws std::system_error when the kernel gives no handle for another reason, for instance
  /// because too many files are open.
  process_handle(const proc_dir& proc, const process& known);

  [[nodiscard]] bool valid() const { return fd_.valid(); }
  [[nodiscard]] const process& who() const { return who_; }
  /// Can be polled: readable when the process has ended.
  [[nodiscard]] int fd() const { return fd_.get(); }

  /// @return false with errno set when the signal could not be sent; ESRCH when it has ended.
  [[nodiscard]] bool send(int signal) const;
  [[nodiscard]] bool has_ended() const;
  /// Waits until it has ended. @return whether it has.
  [[nodiscard]] bool wait_end(std::chrono::milliseconds limit) const;

 private:
  process who_;
  unique_fd fd_;
};

/// Waits until all have ended. @return whether they have.
bool wait_all_ended(const std::vector<process_handle>& handles, std::chrono::milliseconds limit);

}  // namespace control
