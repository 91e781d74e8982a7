#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/scratch_dir.h"

/// One process of a recorded tree.
struct recorded_process {
  pid_t pid;
  pid_t parent;
  std::string name;
  std::vector<std::string> words = {};
  int threads = 1;
  std::uint64_t started = 1000;
  pid_t session = 50;
  char state = 'S';
  std::uint64_t cpu = 0;
  std::uint64_t resident = 0;
};

/// A directory with the files that /proc would have.
class recorded_tree final {
 public:
  explicit recorded_tree(const std::vector<recorded_process>& processes);

  [[nodiscard]] std::string root() const { return scratch_.path().string(); }
  void write(pid_t pid, const std::string& name, const std::string& text) const;
  /// A link such as "exe" or "fd/3".
  void link(pid_t pid, const std::string& name, const std::string& target) const;

 private:
  scratch_dir scratch_;
};
