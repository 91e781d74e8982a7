#pragma once

#include <chrono>
#include <string>

#include "common/misc/unique_fd.h"
#include "control/proc/process_handle.h"

namespace control {

/// Sees a daemon load its configuration. Begun before the load is caused.
///
/// The daemon's parser opens the file for writing though it only reads, and no other reader does:
/// the event of a file that is closed after writing tells that it has been read. The load is over
/// when the daemon lets signals in again, which it does not while it acts on what it has read.
class load_watch final {
 public:
  /// @param file the file that will be loaded; it may get its name later.
  load_watch(const proc_dir& proc, const process& daemon, const std::string& file);

  /// @return whether a whole load was seen in time; false at once when the daemon ends.
  [[nodiscard]] bool wait(std::chrono::milliseconds limit);
  /// Whether the file has been read, so that nobody needs to be told again.
  [[nodiscard]] bool has_begun() const { return read_; }

 private:
  [[nodiscard]] bool wait_read(std::chrono::steady_clock::time_point end);
  [[nodiscard]] bool wait_settled(std::chrono::steady_clock::time_point end) const;

  const proc_dir& proc_;
  process_handle daemon_;
  bool tells_of_signals_;
  bool read_ = false;
  unique_fd events_;
};

}  // namespace control
