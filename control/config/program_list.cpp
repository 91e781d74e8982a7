#include "control/config/program_list.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "common/misc/fun_misc.h"

namespace control {
namespace {

bool fits(const std::string& value, std::size_t limit) {
  return value.size() <= limit && value.find('\0') == std::string::npos;
}

std::vector<int> listed_numbers(const Tini_parser& config) {
  const int count = config.read_int(kListSection, kCountKey, 0);
  std::vector<int> numbers;
  for (const std::string& key : config.section_keys(kListSection)) {
    const int number = entry_number(key);
    if (number > 0 && number <= count) numbers.push_back(number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

void read_values(const Tini_parser& config, const std::string& directory, listed_program& out) {
  if (!fits(out.name, kLongestName)) {
    out.refused = refusal::name;
    return;
  }
  out.exepath = config.read_string(out.name, "exepath", "");
  out.state = config.read_string(out.name, "state", "");
  out.exepath_given = !out.exepath.empty();
  if (!out.exepath_given) {
    out.exepath = directory + (directory.ends_with('/') ? "" : "/") + out.name;
  }
  if (!fits(out.exepath, kLongestExepath)) {
    out.refused = refusal::exepath;
  } else if (!fits(out.state, kLongestState)) {
    out.refused = refusal::state;
  }
}

}  // namespace

int entry_number(const std::string& key) {
  constexpr std::string_view kPrefix = "svr";
  if (!key.starts_with(kPrefix) || key.size() == kPrefix.size()) return 0;
  const char* const first = key.data() + kPrefix.size();
  const char* const last = key.data() + key.size();
  int number = 0;
  const auto [end, error] = std::from_chars(first, last, number);
  return *first != '0' && error == std::errc{} && end == last && number > 0 ? number : 0;
}

std::vector<listed_program> read_programs(const Tini_parser& config, const std::string& directory) {
  std::vector<listed_program> programs;
  for (const int number : listed_numbers(config)) {
    listed_program program;
    program.number = number;
    program.name = config.read_string(kListSection, "svr" + std::to_string(number), "");
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
  if (!Tfun_misc::file_exists(program.exepath.c_str())) return obstacle::missing;
  return ::access(program.exepath.c_str(), X_OK) == 0 ? obstacle::none : obstacle::not_executable;
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
