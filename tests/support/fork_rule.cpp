#include "tests/support/fork_rule.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/misc/unique_fd.h"

namespace {

/// How many threads the calling process has. Safe in a child of a process with many.
long count_threads() {
  char text[512] = {};
  const unique_fd file(::open("/proc/self/stat", O_RDONLY | O_CLOEXEC));
  if (::read(file.get(), text, sizeof text - 1) <= 0) return 0;
  // The 20th field; the second one, the name, ends in the last parenthesis.
  const char* field = std::strrchr(text, ')');
  for (int number = 2; field != nullptr && number < 20; ++number)
    field = std::strchr(field + 1, ' ');
  return field == nullptr ? 0 : std::strtol(field, nullptr, 10);
}

}  // namespace

void require_forking_thread() {
  if (count_threads() < 2) return;
  // The process and the thread, since a forked process begins with its parent's.
  static std::atomic<std::int64_t> forking{0};
  const std::int64_t process = ::getpid();
  const std::int64_t self = process << 32 | ::gettid();
  std::int64_t known = forking.load();
  if (known >> 32 != process && forking.compare_exchange_strong(known, self)) return;
  if (known == self) return;
  std::fprintf(stderr, "a second thread forks: its stack is not in the child\n");
  std::abort();
}
