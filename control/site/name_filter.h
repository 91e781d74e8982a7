#pragma once

#include <string>
#include <vector>

namespace control {

/// Picks names by patterns as the shell has them ("kmd_*").
class name_filter final {
 public:
  /// Without patterns every name fits.
  explicit name_filter(std::vector<std::string> patterns) : patterns_(std::move(patterns)) {}

  [[nodiscard]] bool fits(const std::string& name) const;
  /// Patterns that none of the names fits.
  [[nodiscard]] std::vector<std::string> unused(const std::vector<std::string>& names) const;

 private:
  std::vector<std::string> patterns_;
};

}  // namespace control
