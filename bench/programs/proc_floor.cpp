// What it costs on this machine to ask the kernel about all processes, when nothing is made of the
// answers: one thread reads "stat" of each, and "smaps_rollup" of those whose names are not given.
// Usage: proc_floor NAME...

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

char g_text[4096];

std::string_view read_of(int proc, int pid, const char* name) {
  char path[64];
  std::snprintf(path, sizeof path, "%d/%s", pid, name);
  const int file = ::openat(proc, path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return {};
  const ssize_t length = ::read(file, g_text, sizeof g_text);
  ::close(file);
  return {g_text, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

std::vector<int> all_processes() {
  std::vector<int> pids;
  DIR* const stream = ::opendir("/proc");
  if (stream == nullptr) return pids;
  while (const dirent* const item = ::readdir(stream)) {
    if (const long pid = std::strtol(item->d_name, nullptr, 10); pid > 0)
      pids.push_back(static_cast<int>(pid));
  }
  ::closedir(stream);
  return pids;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> left_out(argv + 1, argv + argc);
  const int proc = ::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (const int pid : all_processes()) {
    const std::string_view line = read_of(proc, pid, "stat");
    const std::size_t begin = std::min(line.find('('), line.size());
    const std::size_t end = std::min(line.rfind(')'), line.size());
    if (begin >= end) continue;
    const std::string_view name = line.substr(begin + 1, end - begin - 1);
    if (std::find(left_out.begin(), left_out.end(), name) != left_out.end()) continue;
    read_of(proc, pid, "smaps_rollup");
  }
  return 0;
}
