#pragma once

#include <string>
#include <vector>

#include "common/inifile/ini_parser.h"
#include "process/server_entry.h"

namespace control {

using server_entry::obstacle;
using server_entry::refusal;

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

/// The first entry of each name. Further ones say the same: all that describes a program is in the
/// section of its name.
std::vector<listed_program> merge_repeated(std::vector<listed_program> programs);

/// What keeps a load from starting the entry's program.
obstacle find_obstacle(const listed_program& program);
/// Why a load skips the entry: a refused value or an obstacle. Empty when it does not.
std::string why_skipped(const listed_program& program);

}  // namespace control
