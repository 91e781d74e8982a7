#pragma once

#include <string>
#include <vector>

#include "control/site/snapshot.h"

namespace control {

/// One log file of a program that keelmond-run runs.
struct program_log_file {
  std::string label;  ///< The program's name, and what part of its output it is.
  std::string path;
};

/// Where the output of some programs goes.
struct log_locations {
  std::vector<program_log_file> files;
  /// Of each program without a file a line that says where to look.
  std::vector<std::string> elsewhere;
};

/// Reads the programs' own files.
log_locations locate_logs(const snapshot& now, const site& place,
                          const std::vector<std::string>& names);

}  // namespace control
