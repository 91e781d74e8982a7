#include "process/server_entry.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <system_error>

#include "common/misc/bounded_text.h"
#include "common/misc/fun_misc.h"

namespace server_entry {
namespace {

constexpr std::string_view kPrefix = "svr";

/// Takes a value over whole, or not at all.
template <std::size_t N>
bool take(const std::string& value, char (&out)[N]) {
  if (value.size() >= N || value.find('\0') != std::string::npos) return false;
  return copy_bounded(out, value.c_str());
}

}  // namespace

std::string key_of(int number) {
  return std::string(kPrefix).append(std::to_string(number));
}

int number_of(std::string_view key) {
  if (!key.starts_with(kPrefix)) return 0;
  key.remove_prefix(kPrefix.size());
  if (key.empty() || key.front() < '1' || key.front() > '9') return 0;
  int number = 0;
  const auto [end, error] = std::from_chars(key.data(), key.data() + key.size(), number);
  return error == std::errc{} && end == key.data() + key.size() ? number : 0;
}

int count_of(const Tini_parser& config) {
  return config.read_int(kSection, kCountKey, 0);
}

std::vector<int> listed_numbers(const Tini_parser& config) {
  const int count = count_of(config);
  std::vector<int> numbers;
  for (const std::string& key : config.section_keys(kSection)) {
    const int number = number_of(key);
    if (number > 0 && number <= count) numbers.push_back(number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

std::string name_of(const Tini_parser& config, int number) {
  return config.read_string(kSection, key_of(number), "");
}

refusal take_name(const std::string& name, entry& out) {
  return take(name, out.name) ? refusal::none : refusal::name;
}

refusal take_values(const Tini_parser& config, entry& out) {
  const std::string section = out.name;
  if (!take(config.read_string(section, kExepathKey, ""), out.exepath)) return refusal::exepath;
  if (!take(config.read_string(section, kStateKey, ""), out.state)) return refusal::state;
  return refusal::none;
}

obstacle find_obstacle(const char* exepath) {
  if (!Tfun_misc::file_exists(exepath)) return obstacle::missing;
  return ::access(exepath, X_OK) == 0 ? obstacle::none : obstacle::not_executable;
}

}  // namespace server_entry
