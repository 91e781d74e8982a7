#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>

#include "common/inifile/ini_parser.h"
#include "control/proc/proc_dir.h"

namespace control {

/// A configuration file as it was when it was read.
struct config_bytes {
  std::string text;
  struct stat status {};

  [[nodiscard]] file_id id() const { return {status.st_dev, status.st_ino}; }
};

/// Reads the file, for which no permission to write is needed.
/// @return nothing, with errno set, when it is not a regular file that can be read.
std::optional<config_bytes> read_config(const std::string& path);

/// What the daemon would make of a file with this text, if it may open it. The daemon's own parser
/// reads a private copy, because it takes no file that it could not write.
Tini_parser parse_config(std::string_view text);

}  // namespace control
