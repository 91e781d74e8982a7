#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace runner {

/// A log file that has been rotated.
///
/// Its name is that of the log and the moment at which it ended, in UTC, so that names sort by age
/// and never change: "redis.log.20261115T090203.123456Z", and ".gz" behind it once it is
/// compressed.
struct rotated_name {
  enum class kind {
    plain,
    compressed,
    half_compressed,  ///< What a compressor has written so far.
  };
  std::int64_t moment = 0;  ///< Microseconds since 1970.
  kind what = kind::plain;
};

/// The path that the log at `path` gets.
std::string rotated_path(std::string_view path, const rotated_name& name);
/// What follows the log's own name and a dot in the name of a file; nothing when it was not rotated
/// by this program.
std::optional<rotated_name> parse_rotated(std::string_view text);
/// All of the log at `path`, oldest first. A file that is there in several forms is listed in each,
/// in the order of `kind`.
std::vector<rotated_name> find_rotated(const std::string& path);

}  // namespace runner
