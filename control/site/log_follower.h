#pragma once

#include <string>
#include <vector>

#include "control/site/directory_watch.h"
#include "control/site/file_tail.h"
#include "control/site/log_reader.h"

namespace control {

/// Reads what is appended to the daemon's log, whether it is renamed and begun anew or emptied
/// meanwhile.
class log_follower final {
 public:
  /// Begins at the end of the file as it is; a file that comes later is read from its beginning.
  explicit log_follower(std::string path);

  /// Sleeps until something may have been appended, or a second has passed.
  void wait() const { watch_.wait(); }
  /// The events that were appended since the last call.
  std::vector<log_event> read();

 private:
  file_tail file_;
  directory_watch watch_;
  log_parser parser_;
};

}  // namespace control
