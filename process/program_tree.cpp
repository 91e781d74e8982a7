#include "process/program_tree.h"

#include <fcntl.h>
#include <regex.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/misc/unique_fd.h"

namespace program_tree {
namespace {

/// The process's name as the kernel keeps it: at most 15 characters and a terminator.
using process_name = char[32];

/// How far below a child a program is looked for.
constexpr int kDeepest = 32;

/// @return false when it cannot be read.
bool read_name(pid_t pid, process_name& name) noexcept {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/comm", pid);
  const unique_fd file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) return false;
  const ssize_t got = ::read(file.get(), name, sizeof name - 1);
  if (got < 0) return false;
  name[got] = '\0';
  name[std::strcspn(name, "\n")] = '\0';
  return true;
}

/// The children of a process with one thread, in the order in which they were forked.
class children_of final {
 public:
  explicit children_of(pid_t parent) noexcept : file_(open_list(parent)) {}

  /// Whether /proc tells.
  [[nodiscard]] bool known() const noexcept { return file_.valid(); }

  /// @return the next child; 0 when there is none left.
  pid_t next() noexcept {
    pid_t pid = 0;
    for (char digit = 0; (digit = next_byte()) != '\0';) {
      if (digit == ' ') return pid;
      pid = pid * 10 + (digit - '0');
    }
    return pid;
  }

 private:
  static int open_list(pid_t parent) noexcept {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/task/%d/children", parent, parent);
    return ::open(path, O_RDONLY | O_CLOEXEC);
  }

  /// @return '\0' at the end.
  char next_byte() noexcept {
    if (at_ == size_) {
      size_ = file_.valid() ? ::read(file_.get(), text_, sizeof text_) : 0;
      at_ = 0;
    }
    return size_ > at_ ? text_[at_++] : '\0';
  }

  unique_fd file_;
  char text_[512] = {};
  ssize_t at_ = 0;
  ssize_t size_ = 0;
};

/// A name as `pgrep` reads it: an extended regular expression that may match any part.
class name_pattern final {
 public:
  explicit name_pattern(const char* name) noexcept
      : valid_(::regcomp(&compiled_, name, REG_EXTENDED | REG_NOSUB) == 0) {}
  name_pattern(const name_pattern&) = delete;
  name_pattern& operator=(const name_pattern&) = delete;
  ~name_pattern() {
    if (valid_) ::regfree(&compiled_);
  }
  [[nodiscard]] bool matches(const char* name) const noexcept {
    return valid_ && ::regexec(&compiled_, name, 0, nullptr, 0) == 0;
  }

 private:
  regex_t compiled_{};
  bool valid_;
};

// NOLINTNEXTLINE(misc-no-recursion): bounded by `depth`.
int signal_below(pid_t parent, const name_pattern& pattern, int sig, int depth) noexcept {
  if (depth == 0) return 0;
  int signalled = 0;
  children_of children(parent);
  while (const pid_t one = children.next()) {
    process_name name;
    // Those below it first: they are found by their parent, which may be gone after the signal.
    signalled += signal_below(one, pattern, sig, depth - 1);
    if (read_name(one, name) && pattern.matches(name) && ::kill(one, sig) == 0) ++signalled;
  }
  return signalled;
}

}  // namespace

bool has_its_name(pid_t child) noexcept {
  process_name child_name;
  process_name name;
  if (!read_name(child, child_name)) return true;
  // Child, shell, program: a shell may also become the program itself.
  pid_t process = child;
  for (int depth = 0; depth < 3; ++depth) {
    children_of children(process);
    if (!children.known()) return true;
    process = children.next();
    if (process == 0 || !read_name(process, name)) return false;
    if (std::strcmp(name, child_name) != 0 && std::strcmp(name, "sh") != 0) return true;
  }
  return false;
}

int signal_by_name(pid_t child, const char* name, int sig) noexcept {
  const name_pattern pattern(name);
  return signal_below(child, pattern, sig, kDeepest);
}

}  // namespace program_tree
