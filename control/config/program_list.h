#pragma once

#include <string>
#include <vector>

#include "common/inifile/ini_parser.h"

namespace control {

/// The section that lists the programs, and the key with their number.
inline constexpr char kListSection[] = "keelmond";
inline constexpr char kCountKey[] = "linux";
/// The longest values in bytes; an entry with a longer one is refused whole.
inline constexpr std::size_t kLongestName = 127;
inline constexpr std::size_t kLongestExepath = 511;
inline constexpr std::size_t kLongestState = 127;

/// Which value makes the daemon refuse an entry: it is too long or holds a NUL byte.
enum class refusal { none, name, exepath, state };

/// One program as a load of the configuration sees it.
struct listed_program {
  int number = 0;  ///< i of its key "svri".
  std::string name;
  std::string exepath;  ///< What is run: the given path, or the directory joined to the name.
  std::string state;
  bool exepath_given = false;
  refusal refused = refusal::none;

  [[nodiscard]] bool wants_run() const { return state == "run"; }
  [[nodiscard]] bool wants_stop() const { return state == "stop"; }
};

/// The entries in the order in which a load handles them; those without a name are left out, as a
/// load skips them, and refused ones are in.
/// @param directory where the daemon runs, for programs without `exepath`.
std::vector<listed_program> read_programs(const Tini_parser& config, const std::string& directory);

/// The entries in which each name stands once, in its first place. The others say the same: all
/// that describes a program is in the section of its name.
std::vector<listed_program> merge_repeated(std::vector<listed_program> programs);

/// The number i of a key "svri"; 0 for any other key.
int entry_number(const std::string& key);

/// Why a load passes over an entry's program without starting it.
enum class obstacle { none, missing, not_executable };
/// Asks the file system, as this user. Relative paths are relative to the working directory.
obstacle find_obstacle(const listed_program& program);
/// Why a load skips the entry: a refused value or an obstacle. Empty when it does not.
std::string why_skipped(const listed_program& program);

}  // namespace control
