#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace runner {

/// Where the output of a program goes.
enum class log_target {
  file,     ///< A file that is rotated.
  syslog,   ///< The datagram socket of the local syslog.
  journal,  ///< The datagram socket of systemd's journal.
  inherit,  ///< Wherever the launcher's own output goes: nothing is read, nothing is written.
};

/// What the section `log` of a program file says. The values here are those of keys left out.
struct log_settings {
  log_target target = log_target::inherit;
  /// What syslog and the journal call the program.
  std::string name;

  // For files only.
  /// Absolute. Must not be a symbolic link; its directory has to be there.
  std::string file;
  /// Bytes after which a new file is begun; 0 for never.
  std::uint64_t size = std::uint64_t{10} * 1024 * 1024;
  /// How old a file may become before a new one is begun; 0 for any age.
  std::chrono::seconds age{0};
  /// How many rotated files are kept.
  unsigned keep = 5;
  /// Rotated files are compressed by gzip.
  bool compress = false;
  /// Each line has the time in front.
  bool stamp = false;
  /// A file of its own for standard error, absolute, with the same limits; empty for the same one.
  std::string stderr_file;
};

}  // namespace runner
