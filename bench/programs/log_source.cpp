// What writes a log in bench/logs: `log_source BYTES LINE CHUNK FILE` writes so many bytes to
// standard output, in lines of LINE bytes and pieces of CHUNK bytes, and its own processor time in
// nanoseconds to FILE. `log_source idle` writes one line and waits for its end.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

long long nanoseconds(const timeval& time) {
  return static_cast<long long>(time.tv_sec) * 1'000'000'000 + time.tv_usec * 1000LL;
}

bool write_own_time(const char* path) {
  rusage used{};
  ::getrusage(RUSAGE_SELF, &used);
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  return write_all(fd, std::to_string(nanoseconds(used.ru_utime) + nanoseconds(used.ru_stime)));
}

}  // namespace

int main(int count, char** words) {
  if (count == 2 && std::string_view(words[1]) == "idle") {
    if (!write_all(STDOUT_FILENO, "one line\n")) return 1;
    for (;;)
      ::pause();
  }
  if (count != 5) return 2;
  const std::size_t bytes = std::strtoull(words[1], nullptr, 10);
  const std::size_t line = std::strtoull(words[2], nullptr, 10);
  const std::size_t chunk = std::strtoull(words[3], nullptr, 10);
  if (line == 0 || chunk == 0) return 2;
  // Pieces that begin at every place of a line, one after the other.
  std::string text;
  while (text.size() < chunk + line)
    text.append(line - 1, 'x').append(1, '\n');
  for (std::size_t done = 0; done < bytes;) {
    const std::size_t length = std::min(chunk, bytes - done);
    if (!write_all(STDOUT_FILENO, std::string_view(text).substr(done % line, length))) return 1;
    done += length;
  }
  return write_own_time(words[4]) ? 0 : 1;
}
