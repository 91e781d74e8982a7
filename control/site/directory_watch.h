#pragma once

#include <string>

#include "common/misc/unique_fd.h"

namespace control {

/// Sleeps until something may have changed in some directories.
class directory_watch final {
 public:
  directory_watch();
  /// Watches the directory that the file is in.
  void add_directory_of(const std::string& file) const;
  /// Returns when something has changed in one of them, or a second has passed.
  void wait() const;

 private:
  unique_fd events_;
};

}  // namespace control
