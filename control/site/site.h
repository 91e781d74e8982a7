#pragma once

#include <string>

namespace control {

/// The directory of one supervisor. It is the working directory from `enter_site` on, as it is the
/// daemon's, so that relative paths mean the same to both.
struct site {
  std::string directory;  ///< Absolute, without links.

  [[nodiscard]] std::string pid_file() const { return directory + "/run.pid"; }
  [[nodiscard]] std::string config_file() const { return directory + "/config/server.ini"; }
  [[nodiscard]] std::string log_file() const { return directory + "/keelmond.log"; }
};

/// Goes to `directory`; when that is empty to $KEELMOND_DIR, and else stays in the current one.
/// @throws failure when there is no such directory.
site enter_site(const std::string& directory);

}  // namespace control
