#include "runner/supervise/descendants.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "common/misc/small_file.h"
#include "runner/file/process_stat.h"
#include "runner/file/values.h"
#include "runner/file/words.h"

namespace runner {

std::vector<pid_t> own_children() {
  const std::string pid = std::to_string(::getpid());
  std::string text;
  std::vector<pid_t> children;
  if (!read_small_file(AT_FDCWD, ("/proc/self/task/" + pid + "/children").c_str(), text)) {
    // A kernel that keeps no such list.
    find_number("/proc", [&](int other) {
      const auto one = read_process_stat(other);
      if (one && one->parent == ::getpid()) children.push_back(other);
      return false;
    });
    return children;
  }
  for (const std::string& word : split_names(text)) {
    if (const auto child = parse_count(word)) children.push_back(static_cast<pid_t>(*child));
  }
  return children;
}

}  // namespace runner
