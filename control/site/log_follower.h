#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "common/misc/unique_fd.h"
#include "control/site/log_reader.h"

namespace control {

/// Reads what is appended to a log, whether it is renamed and begun anew or emptied meanwhile.
class log_follower final {
 public:
  /// Begins at the end of the file as it is; a file that comes later is read from its beginning.
  explicit log_follower(std::string path);

  /// Sleeps until something may have been appended, or a second has passed.
  void wait() const;
  /// The events that were appended since the last call.
  std::vector<log_event> read();

 private:
  void open(bool at_end);
  void read_to_end();
  [[nodiscard]] bool is_replaced() const;

  std::string path_;
  unique_fd events_;
  unique_fd file_;
  log_parser parser_;
};

}  // namespace control
