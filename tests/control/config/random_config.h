#pragma once

#include <random>
#include <string>
#include <vector>

/// Makes configurations as people write them and as they should not: odd blanks and line ends,
/// repeated keys and headers, gaps, comments, lines that mean nothing.
class random_config final {
 public:
  explicit random_config(unsigned seed) : random_(seed) {}

  [[nodiscard]] std::string text();
  /// One of the names that the configurations use.
  [[nodiscard]] std::string name();

 private:
  [[nodiscard]] unsigned below(unsigned count);
  [[nodiscard]] std::string one_of(const std::vector<std::string>& choices);
  [[nodiscard]] std::string line();

  std::mt19937 random_;
};
