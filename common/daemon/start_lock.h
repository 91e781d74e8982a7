#pragma once

#include "common/misc/unique_fd.h"

/// Makes the check for another instance and the creation of the pid file one step to every other
/// start in the same directory.
///
/// It is a lock on the directory itself, held over that window only. The daemon's two forks pass it
/// on, and the processes that end on the way do not release it.
class start_lock final {
 public:
  /// Takes the lock on the working directory. Another start that holds it is waited for, ten
  /// seconds at most. Without the lock the start goes on all the same.
  void acquire();
  /// Gives it back, for every process that has inherited it.
  void release();

 private:
  unique_fd directory_;
};
