#include "tests/e2e/support/process_table.h"

#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "tests/support/scratch_dir.h"

namespace fs = std::filesystem;

namespace process_table {
namespace {

fs::path directory_of(pid_t pid) {
  return fs::path("/proc") / std::to_string(pid);
}

bool has_setting(pid_t pid, std::string_view setting) {
  const std::string environment = '\0' + read_file(directory_of(pid) / "environ");
  std::string wanted(1, '\0');
  wanted += setting;
  wanted += '\0';
  return environment.find(wanted) != std::string::npos;
}

std::vector<pid_t> all_pids() {
  std::vector<pid_t> pids;
  for (const auto& item : fs::directory_iterator("/proc")) {
    const std::string name = item.path().filename().string();
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (error == std::errc{} && end == name.data() + name.size()) pids.push_back(pid);
  }
  return pids;
}

}  // namespace

std::optional<process> find(pid_t pid) {
  // "PID (NAME) STATE PPID PGRP SESSION ...", and a name may hold blanks and parentheses.
  const std::string line = read_file(directory_of(pid) / "stat");
  const std::size_t open = line.find('(');
  const std::size_t close = line.rfind(')');
  if (open == std::string::npos || close == std::string::npos) return std::nullopt;
  process found{pid, 0, 0, '?', 0, line.substr(open + 1, close - open - 1)};
  pid_t group = 0;
  std::string skipped;
  std::istringstream rest(line.substr(close + 1));
  rest >> found.state >> found.parent >> group >> found.session;
  rest >> skipped >> skipped >> skipped >> found.minor_faults;  // terminal, its group, flags
  if (!rest || found.state == 'Z' || found.state == 'X') return std::nullopt;
  return found;
}

bool is_alive(pid_t pid) {
  return find(pid).has_value();
}

bool is_below(pid_t pid, pid_t ancestor) {
  for (auto at = find(pid); at; at = find(at->parent)) {
    if (at->parent == ancestor) return true;
  }
  return false;
}

std::vector<process> all() {
  std::vector<process> alive;
  for (const pid_t pid : all_pids()) {
    if (const auto found = find(pid)) alive.push_back(*found);
  }
  return alive;
}

std::vector<process> all_with(std::string_view setting) {
  std::vector<process> matching = all();
  std::erase_if(matching, [&](const process& one) { return !has_setting(one.pid, setting); });
  return matching;
}

std::string status_field(pid_t pid, std::string_view field) {
  std::istringstream lines(read_file(directory_of(pid) / "status"));
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(field) || line.substr(field.size(), 1) != ":") continue;
    const std::size_t value = line.find_first_not_of(" \t", field.size() + 1);
    return value == std::string::npos ? "" : line.substr(value);
  }
  return "";
}

int count_threads(pid_t pid) {
  return std::atoi(status_field(pid, "Threads").c_str());
}

std::vector<std::uintptr_t> stack_pointers(pid_t pid) {
  std::vector<std::uintptr_t> result;
  std::error_code gone;
  for (fs::directory_iterator at(directory_of(pid) / "task", gone), end; !gone && at != end;
       at.increment(gone)) {
    // The call, its six arguments, the stack pointer.
    std::istringstream line(read_file(at->path() / "syscall"));
    std::string skipped;
    for (int i = 0; i < 7; ++i)
      line >> skipped;
    std::uintptr_t pointer = 0;
    if (line >> std::hex >> pointer) result.push_back(pointer);
  }
  return result;
}

bool is_mapped(pid_t pid, std::uintptr_t address) {
  std::istringstream maps(read_file(directory_of(pid) / "maps"));
  for (std::string line; std::getline(maps, line);) {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    char dash = 0;
    std::istringstream(line) >> std::hex >> begin >> dash >> end;
    if (begin <= address && address < end) return true;
  }
  return false;
}

int count_inotifies(pid_t pid) {
  int instances = 0;
  std::error_code gone;
  for (fs::directory_iterator at(directory_of(pid) / "fd", gone), end; !gone && at != end;
       at.increment(gone)) {
    std::error_code closed;
    instances += fs::read_symlink(at->path(), closed) == "anon_inode:inotify" ? 1 : 0;
  }
  return instances;
}

int count_watches(pid_t pid) {
  int watches = 0;
  std::error_code gone;
  for (fs::directory_iterator at(directory_of(pid) / "fdinfo", gone), end; !gone && at != end;
       at.increment(gone)) {
    std::istringstream lines(read_file(at->path()));
    for (std::string line; std::getline(lines, line);)
      watches += line.starts_with("inotify wd:") && line.find(" mask:2 ") != line.npos ? 1 : 0;
  }
  return watches;
}

}  // namespace process_table
