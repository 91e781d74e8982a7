#include "runner/supervise/descriptors.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vector>

#include "runner/file/process_stat.h"

namespace runner {

void settle_descriptors() {
  constexpr unsigned kFirst = STDERR_FILENO + 1;
  if (::syscall(SYS_close_range, kFirst, ~0U, 0U) != 0) close_listed(kFirst);
  int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  while (fd >= 0 && fd <= STDERR_FILENO) {
    // One that stays, for the program would get it as well.
    ::fcntl(fd, F_SETFD, 0);
    fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  }
  ::close(fd);
}

void close_listed(int first) {
  std::vector<int> listed;
  find_number("/proc/self/fd", [&](int fd) {
    if (fd >= first) listed.push_back(fd);
    return false;
  });
  // The one through which they were listed is among them, and closed by now.
  for (const int fd : listed)
    ::close(fd);
}

}  // namespace runner
