#include <fcntl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <tuple>

#include "common/misc/bounded_text.h"
#include "common/misc/fun_misc.h"
#include "common/misc/joined_path.h"
#include "common/misc/unique_fd.h"
#include "common/misc/unique_file.h"

namespace {

constexpr mode_t kDirectoryMode = 0700;
constexpr std::size_t kMaxPath = 512;
constexpr std::size_t kMaxLoad = 8192;
constexpr std::size_t kCopyChunk = 1024;
constexpr std::size_t kMaxOutputLine = 8192;
constexpr int kCoresWhenUnknown = 8;
constexpr int kThreadsWhenFewCores = 18;

struct pipe_closer {
  void operator()(std::FILE* pipe) const noexcept { ::pclose(pipe); }
};

/// Length of the directory part of a path without the last "/"; 0 when there is none, or only a "/"
/// at the very beginning. That the root directory is never produced is part of the interface.
std::size_t directory_length(std::string_view path) noexcept {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? 0 : slash;
}

/// Reads a line, or as much of it as fits, and terminates it. Unlike `fgets` it goes on after a
/// signal, with all that it has read by then. @return whether anything was read.
template <std::size_t N>
bool read_line(std::FILE* stream, char (&line)[N]) noexcept {
  std::size_t length = 0;
  while (length < N - 1 && (length == 0 || line[length - 1] != '\n')) {
    const int next = std::getc(stream);
    if (next != EOF) {
      line[length++] = static_cast<char>(next);
    } else if (std::feof(stream) != 0 || errno != EINTR) {
      break;
    } else {
      std::clearerr(stream);
    }
  }
  line[length] = '\0';
  return length > 0;
}

}  // namespace

bool Tfun_misc::get_current_path(char* out, std::size_t size, const char* name) noexcept {
  char current[1024] = {};
  if (out == nullptr || ::getcwd(current, sizeof current) == nullptr) return false;
  return join_path(out, size, current, name == nullptr ? "" : name);
}

void Tfun_misc::get_filename_path(const char* full, char* out, bool add_slash) noexcept {
  if (full == nullptr || out == nullptr) return;
  const std::size_t length = directory_length(full);
  if (length == 0) return;
  // No terminator: a caller may put the directory over the beginning of the text that is there.
  std::memcpy(out, full, length);
  if (add_slash) std::strcat(out, "/");
}

int Tfun_misc::get_last_pos(const char* str, const char* ch) noexcept {
  if (str == nullptr || ch == nullptr || std::strlen(ch) != 1) return -1;
  const char* const found = std::strrchr(str, *ch);
  return found == nullptr ? -1 : static_cast<int>(found - str);
}

bool Tfun_misc::create_dir(const char* path) noexcept {
  char prefix[kMaxPath];
  copy_bounded(prefix, path);
  const std::size_t length = std::strlen(prefix);
  if (length > 0 && prefix[length - 1] == '/') prefix[length - 1] = '\0';
  // From the second character on, so that a leading "/" is no directory of its own to create.
  for (char* slash = prefix + 1; (slash = std::strchr(slash, '/')) != nullptr; ++slash) {
    *slash = '\0';
    ::mkdir(prefix, kDirectoryMode);
    *slash = '/';
  }
  ::mkdir(prefix, kDirectoryMode);
  return dir_exists(path);
}

bool Tfun_misc::create_dir_by_filename(const char* filename) noexcept {
  if (filename == nullptr) return false;
  const std::size_t length = directory_length(filename);
  char directory[kMaxPath] = {};
  if (length == 0 || length >= sizeof directory) return false;
  std::memcpy(directory, filename, length);
  return create_dir(directory);
}

bool Tfun_misc::dir_exists(const char* path) noexcept {
  // Existence is all that is asked, which is part of the interface: a plain file is an answer too,
  // and a caller learns whether the name is taken.
  return path != nullptr && ::access(path, F_OK) == 0;
}

bool Tfun_misc::file_exists(const char* path) noexcept {
  if (path == nullptr) return false;
  // Opening a FIFO would wait for its writer, opening a terminal could make it ours.
  return unique_fd(::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)).valid();
}

long Tfun_misc::get_file_size(const char* path) noexcept {
  struct stat status {};
  if (path == nullptr || ::stat(path, &status) != 0) return -1;
  return status.st_size;
}

bool Tfun_misc::save_file_data(const char* path, const char* text) noexcept {
  if (path == nullptr || text == nullptr) return false;
  const unique_file file(std::fopen(path, "wbe"));
  if (!file) return false;
  // An empty text is not counted as saved: a caller sees that the file now holds nothing.
  return std::fwrite(text, 1, std::strlen(text), file.get()) != 0;
}

bool Tfun_misc::load_file_data(const char* path, char* buf) noexcept {
  if (path == nullptr || buf == nullptr) return false;
  const unique_file file(std::fopen(path, "rbe"));
  return file && std::fread(buf, 1, kMaxLoad, file.get()) != 0;
}

int Tfun_misc::copyFile(const char* from, const char* to) noexcept {
  if (from == nullptr || to == nullptr) return -1;
  const unique_file source(std::fopen(from, "re"));
  // Opened whether or not there is a source: after a call the old content of `to` is gone.
  const unique_file target(std::fopen(to, "w+e"));
  if (!source || !target) return -1;
  char chunk[kCopyChunk];
  while (const std::size_t length = std::fread(chunk, 1, sizeof chunk, source.get())) {
    std::fwrite(chunk, 1, length, target.get());
  }
  return 0;
}

void Tfun_misc::UpdateProcessLiveFile(const char* name, bool alive) noexcept {
  char path[kMaxPath];
  if (name == nullptr || !get_current_path(path, "/notify/")) return;
  const std::size_t length = std::strlen(path);
  const std::size_t room = sizeof path - length;
  const int needed = std::snprintf(path + length, room, "%s.dat", name);
  if (needed < 0 || static_cast<std::size_t>(needed) >= room) return;
  if (!alive) {
    std::remove(path);
    return;
  }
  // A pipe in its place must not make the caller wait for a reader.
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  const unique_fd file(::open(path, kFlags, 0666));
  if (!file.valid()) return;
  std::ignore = ::write(file.get(), "1", 1);
}

int Tfun_misc::select_sleep(int seconds, long microseconds) noexcept {
  timeval timeout{seconds, microseconds};
  // Not resumed after a signal, which is part of the interface: the result tells.
  return ::select(0, nullptr, nullptr, nullptr, &timeout);
}

bool Tfun_misc::linux_exec(const char* command, char* out, int max_lines) {
  if (command == nullptr || out == nullptr) return false;
  const std::unique_ptr<std::FILE, pipe_closer> pipe(::popen(command, "re"));
  if (!pipe) throw std::runtime_error("popen() failed!");
  char* end = out + std::strlen(out);
  char line[kMaxOutputLine];
  bool result = false;
  int count = 0;
  while (read_line(pipe.get(), line)) {
    const std::size_t length = std::strlen(line);
    std::memcpy(end, line, length + 1);
    end += length;
    // The line that reaches the limit does not make the result true, so a limit of one line always
    // gives false: callers that ask for one line look at `out`.
    if (max_lines > 0 && ++count >= max_lines) break;
    result = true;
  }
  return result;
}

int Tfun_misc::get_cpu_core_count() noexcept {
  // Never closed, which is part of the interface: closing would wait for the three tools to end.
  std::FILE* const pipe = ::popen("cat /proc/cpuinfo | grep 'cpu cores' | uniq", "re");
  if (pipe == nullptr) return 0;
  char line[kMaxPath] = {};
  const char* const text = std::fgets(line, sizeof line, pipe);
  const char* const colon = text == nullptr ? nullptr : std::strchr(text, ':');
  if (colon == nullptr) return kCoresWhenUnknown;
  return static_cast<int>(std::strtol(colon + 1, nullptr, 10));
}

int Tfun_misc::get_thread_size() noexcept {
  if (thread_size > 0) return thread_size;
  const long cores = get_cpu_core_count();
  // Part of the interface: few cores get more threads than four do.
  thread_size = cores > 3 ? static_cast<int>((cores + 1) * 2) : kThreadsWhenFewCores;
  return thread_size;
}
