#pragma once

#include <string>
#include <vector>

#include "control/check/finding.h"
#include "control/commands/session.h"
#include "control/config/config_bytes.h"
#include "control/config/program_list.h"

namespace control {

/// A configuration that has been read and looked through.
struct checked_file {
  std::string shown_as;  ///< The path in messages.
  config_bytes config;
  std::vector<listed_program> programs;  ///< As a load reads them.
  std::vector<finding> found;
};

/// Reads and checks a file; the one that the daemon reads when `path` is empty.
/// @throws failure when it cannot be read.
checked_file check_file(const session& here, const snapshot& now, const std::string& path);

/// "FILE:LINE: severity: text: remedy", a finding on each line.
std::string findings_as_text(const checked_file& file);
/// 0 for a clean file, 1 when there are warnings, 2 when there are errors.
int status_for(const std::vector<finding>& found);

}  // namespace control
