#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "common/inifile/ini_parser.h"

/// The rules by which the entries of a configuration are read, for the supervisor that acts on them
/// and for the tools that tell beforehand what it will do.
///
/// The section "keelmond" has the number of entries in "linux" and a program's name in each of
/// "svr1", "svr2" and so on; the section of that name has its "exepath" and its "state".
///
/// Reads only what it is given, prints and logs nothing. Keeps nothing on the heap but what it
/// returns: a child that is forked meanwhile would keep the rest.
namespace server_entry {

/// The section that lists the programs, and the key with their number.
inline constexpr char kSection[] = "keelmond";
inline constexpr char kCountKey[] = "linux";
/// The keys in the section of a program.
inline constexpr char kExepathKey[] = "exepath";
inline constexpr char kStateKey[] = "state";

/// The longest values in bytes. An entry with a longer one is refused whole.
inline constexpr std::size_t kLongestName = 127;
inline constexpr std::size_t kLongestExepath = 511;
inline constexpr std::size_t kLongestState = 127;

/// One program as the file describes it.
struct entry {
  int number = 0;  ///< i of its key "svri".
  char name[kLongestName + 1] = {};
  char exepath[kLongestExepath + 1] = {};
  char state[kLongestState + 1] = {};
};

/// Which value has an entry refused: it is too long, or holds a NUL byte, which would hide what
/// follows.
enum class refusal { none, name, exepath, state };

/// Why a program that an entry names is passed over.
enum class obstacle { none, missing, not_executable };

/// "svr" and the number.
std::string key_of(int number);
/// The number i of a key "svri", written as printf's %d would write it; 0 for any other key.
int number_of(std::string_view key);

/// The number of entries that the file states.
int count_of(const Tini_parser& config);
/// The numbers from 1 to that count that the file has a key for, in ascending order. Missing
/// numbers are skipped, so a count of two billion costs nothing.
std::vector<int> listed_numbers(const Tini_parser& config);
/// The name in an entry, of any length. An entry without one is skipped.
std::string name_of(const Tini_parser& config, int number);

/// Takes the name over.
[[nodiscard]] refusal take_name(const std::string& name, entry& out);
/// Takes over the other values of an entry that has its name, as far as the file has them. An empty
/// `exepath` stands for the file of that name in the directory of the supervisor.
[[nodiscard]] refusal take_values(const Tini_parser& config, entry& out);

/// Asks the file system, as this user. A relative path is relative to the working directory. For
/// what is not executable, errno is that of access(2).
[[nodiscard]] obstacle find_obstacle(const char* exepath);

}  // namespace server_entry
