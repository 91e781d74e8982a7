#include "control/logs/gzip_reader.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "common/misc/small_file.h"
#include "common/misc/unique_fd.h"

namespace control {

bool read_compressed(const std::string& path, std::string& out) {
  std::array<int, 2> ends{};
  const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.valid() || ::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  const unique_fd reader(ends[0]);
  unique_fd writer(ends[1]);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::dup2(file.get(), STDIN_FILENO) >= 0 && ::dup2(writer.get(), STDOUT_FILENO) >= 0)
      ::execlp("gzip", "gzip", "-dc", nullptr);
    ::_exit(127);
  }
  writer.reset();
  if (child < 0) return false;
  const bool is_read = read_to_end(reader.get(), out);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return is_read && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace control
