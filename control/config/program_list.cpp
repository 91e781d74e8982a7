#include "control/config/program_list.h"

#include <cstddef>
#include <unordered_map>
#include <utility>

#include "common/misc/joined_path.h"

namespace control {
namespace {

/// Fills in the values as they are written, whole even where the daemon refuses them.
void read_values(const Tini_parser& config, const std::string& directory, listed_program& out) {
  server_entry::entry taken;
  out.refused = server_entry::take_name(out.name, taken);
  if (out.refused != refusal::none) return;
  out.refused = server_entry::take_values(config, taken);
  out.exepath = config.read_string(out.name, server_entry::kExepathKey, "");
  out.state = config.read_string(out.name, server_entry::kStateKey, "");
  out.exepath_given = !out.exepath.empty();
  if (out.exepath_given) return;
  if (join_path(taken.exepath, sizeof taken.exepath, directory, taken.name)) {
    out.exepath = taken.exepath;
  } else if (out.refused == refusal::none) {
    out.refused = refusal::exepath;
  }
}

}  // namespace

std::vector<listed_program> read_programs(const Tini_parser& config, const std::string& directory) {
  std::vector<listed_program> programs;
  for (const int number : server_entry::listed_numbers(config)) {
    listed_program program;
    program.number = number;
    program.name = server_entry::name_of(config, number);
    if (program.name.empty()) continue;
    read_values(config, directory, program);
    programs.push_back(std::move(program));
  }
  return programs;
}

std::vector<listed_program> merge_repeated(std::vector<listed_program> programs) {
  // All entries of a name read the same section, so only the numbers differ.
  std::vector<listed_program> merged;
  std::unordered_map<std::string, std::size_t> seen;
  for (listed_program& program : programs) {
    if (seen.emplace(program.name, merged.size()).second) merged.push_back(std::move(program));
  }
  return merged;
}

obstacle find_obstacle(const listed_program& program) {
  return server_entry::find_obstacle(program.exepath.c_str());
}

std::string why_skipped(const listed_program& program) {
  const std::string too_long = " is too long or holds a NUL byte";
  switch (program.refused) {
    case refusal::name:
      return "its name" + too_long;
    case refusal::exepath:
      return "its exepath" + too_long;
    case refusal::state:
      return "its state" + too_long;
    case refusal::none:
      break;
  }
  switch (find_obstacle(program)) {
    case obstacle::missing:
      return program.exepath + " is missing or cannot be read";
    case obstacle::not_executable:
      return program.exepath + " is not executable";
    case obstacle::none:
      break;
  }
  return {};
}

}  // namespace control
