#include "control/site/name_filter.h"

#include <fnmatch.h>

#include <algorithm>

namespace control {
namespace {

bool matches(const std::string& pattern, const std::string& name) {
  return pattern == name || ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

}  // namespace

bool name_filter::fits(const std::string& name) const {
  return patterns_.empty() ||
         std::any_of(patterns_.begin(), patterns_.end(),
                     [&](const std::string& pattern) { return matches(pattern, name); });
}

std::vector<std::string> name_filter::unused(const std::vector<std::string>& names) const {
  std::vector<std::string> left;
  for (const std::string& pattern : patterns_) {
    const auto fits = [&](const std::string& name) { return matches(pattern, name); };
    if (std::none_of(names.begin(), names.end(), fits)) left.push_back(pattern);
  }
  return left;
}

}  // namespace control
