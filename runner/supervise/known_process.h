#pragma once

#include "common/misc/unique_fd.h"
#include "runner/file/process_stat.h"

namespace runner {

/// A process that is taken for no other: it is known by its id and its start, and held by a handle,
/// so that a later one with its id is neither watched nor signalled.
///
/// A kernel older than 5.3, or a sandbox, gives no handles. Then it is compared before each signal,
/// and whoever waits for its end has to ask for it now and then.
class known_process final {
 public:
  /// Takes hold of it, unless it has ended since it was looked at.
  explicit known_process(const process_stat& who);

  /// Readable when it has ended; -1 where there are no handles.
  [[nodiscard]] int fd() const { return handle_.get(); }
  [[nodiscard]] bool has_ended() const;
  /// @return whether the signal was sent.
  [[nodiscard]] bool send(int signal) const;

 private:
  [[nodiscard]] bool is_listed() const;

  process_stat who_;
  unique_fd handle_;
  bool was_there_ = false;
};

}  // namespace runner
