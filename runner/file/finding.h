#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace runner {

/// Something in a program file that is wrong. A file with one is refused as a whole.
struct file_finding {
  /// Counted from 1; 0 for the file as a whole.
  std::size_t line = 0;
  /// The key as it is written there; empty when it is not about one.
  std::string key;
  std::string text;    ///< What is wrong.
  std::string remedy;  ///< What would be right.
};

using file_findings = std::vector<file_finding>;

/// In one line: "PATH:LINE: KEY: what is wrong; what would be right".
std::string in_one_line(const std::string& path, const file_finding& what);

}  // namespace runner
