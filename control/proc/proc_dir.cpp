#include "control/proc/proc_dir.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "common/misc/small_file.h"

namespace control {
namespace {

struct dir_closer {
  void operator()(DIR* stream) const noexcept { ::closedir(stream); }
};
using unique_dir = std::unique_ptr<DIR, dir_closer>;

template <typename Number>
bool parse_number(std::string_view text, Number& out, int base = 10) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out, base);
  return error == std::errc{} && end == text.data() + text.size();
}

/// Cuts the next word off the front of `text`. Words are separated by one blank.
std::string_view next_word(std::string_view& text) {
  const std::size_t end = text.find(' ');
  const std::string_view word = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return word;
}

/// "PID (NAME) STATE PPID PGRP SESSION ...": a name may hold blanks and parentheses.
std::optional<process> parse_stat(pid_t pid, std::string_view line) {
  const std::size_t open = line.find('(');
  const std::size_t close = line.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return {};
  process found;
  found.pid = pid;
  found.name = line.substr(open + 1, close - open - 1);
  std::string_view rest = line.substr(close + 1);
  next_word(rest);
  std::uint64_t ticks = 0;
  bool whole = true;
  // The numbers are those of the fields in proc(5).
  for (int field = 3; field <= 24 && whole; ++field) {
    const std::string_view word = next_word(rest);
    whole = !word.empty();
    if (field == 3 && whole) found.state = word.front();
    if (field == 4) whole = parse_number(word, found.parent);
    if (field == 6) whole = parse_number(word, found.session);
    // In user and in kernel mode, and the same of children that have ended and were waited for.
    if (field >= 14 && field <= 17) {
      whole = parse_number(word, ticks);
      found.cpu += ticks;
    }
    if (field == 20) whole = parse_number(word, found.threads);
    if (field == 22) whole = parse_number(word, found.started);
    if (field == 24) whole = parse_number(word.substr(0, word.find('\n')), found.resident);
  }
  if (!whole) return {};
  return found;
}

/// The rest of the line that begins with "FIELD:".
std::string_view field_of(std::string_view text, std::string_view field) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    std::string_view line = text.substr(at, end - at);
    at = end + 1;
    if (!line.starts_with(field) || line.substr(field.size(), 1) != ":") continue;
    line.remove_prefix(field.size() + 1);
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    return line;
  }
  return {};
}

bool has_bit(std::string_view mask, int signal) {
  std::uint64_t bits = 0;
  return parse_number(mask, bits, 16) && (bits >> (signal - 1) & 1U) != 0;
}

std::optional<file_id> identify_at(int dir, const char* path) {
  struct stat status {};
  if (::fstatat(dir, path, &status, 0) != 0) return {};
  return file_id{status.st_dev, status.st_ino};
}

std::string joined(std::string path, const std::string& name) {
  return path.append("/").append(name);
}

std::string link_at(int dir, const char* path) {
  char target[PATH_MAX];
  const ssize_t length = ::readlinkat(dir, path, target, sizeof target);
  return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : std::string();
}

/// The number in "... KEY:1f4a ..." of a line of fdinfo.
std::uint64_t hex_behind(std::string_view line, std::string_view key) {
  const std::size_t at = line.find(key);
  std::uint64_t number = 0;
  if (at == std::string_view::npos) return 0;
  line.remove_prefix(at + key.size());
  parse_number(line.substr(0, line.find(' ')), number, 16);
  return number;
}

/// Device numbers are written there as the kernel keeps them.
dev_t device_of(std::uint64_t number) {
  return makedev(static_cast<unsigned>(number >> 20), static_cast<unsigned>(number & 0xfffff));
}

void append_watches(std::string_view info, std::vector<watched_file>& out) {
  constexpr std::string_view kWatch = "inotify wd:";
  for (std::size_t at = info.find(kWatch); at != std::string_view::npos;
       at = info.find(kWatch, at + 1)) {
    const std::string_view line = info.substr(at, info.find('\n', at) - at);
    const file_id id{device_of(hex_behind(line, "sdev:")), hex_behind(line, " ino:")};
    out.push_back({id, static_cast<std::uint32_t>(hex_behind(line, " mask:"))});
  }
}

/// The names in a directory below `root`, without those that begin with a dot.
std::vector<std::string> list(int root, const char* path) {
  std::vector<std::string> names;
  unique_fd fd(::openat(root, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid()) return names;
  const unique_dir stream(::fdopendir(fd.get()));
  if (!stream) return names;
  fd.release();
  while (const dirent* const item = ::readdir(stream.get())) {
    if (item->d_name[0] != '.') names.emplace_back(item->d_name);
  }
  return names;
}

}  // namespace

std::optional<file_id> identify_file(const std::string& path) {
  return identify_at(AT_FDCWD, path.c_str());
}

double ticks_per_second() {
  static const double ticks = static_cast<double>(::sysconf(_SC_CLK_TCK));
  return ticks;
}

proc_dir::proc_dir(std::string root)
    : root_(std::move(root)),
      directory_(::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (!directory_.valid()) throw std::runtime_error(root_ + " cannot be read");
}

bool proc_dir::read(pid_t pid, const char* name, std::string& out) const {
  char path[64];
  std::snprintf(path, sizeof path, "%d/%s", pid, name);
  return read_small_file(directory_.get(), path, out);
}

std::vector<pid_t> proc_dir::pids() const {
  std::vector<pid_t> pids;
  for (const std::string& name : list(directory_.get(), ".")) {
    pid_t pid = 0;
    if (parse_number(std::string_view(name), pid)) pids.push_back(pid);
  }
  return pids;
}

std::optional<process> proc_dir::find(pid_t pid) const {
  std::string line;
  if (!read(pid, "stat", line)) return {};
  std::optional<process> found = parse_stat(pid, line);
  // One whose first thread alone has ended runs on.
  const bool has_ended =
      found && (found->state == 'X' || (found->state == 'Z' && found->threads < 2));
  if (has_ended) return {};
  return found;
}

bool proc_dir::is_alive(const process& known) const {
  const std::optional<process> now = find(known.pid);
  return now && now->same_as(known);
}

std::vector<std::string> proc_dir::command_line(pid_t pid) const {
  std::string text;
  std::vector<std::string> words;
  if (!read(pid, "cmdline", text)) return words;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\0', at), text.size());
    words.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return words;
}

std::string proc_dir::environment(pid_t pid, const std::string& variable) const {
  std::string text;
  if (!read(pid, "environ", text)) return {};
  const std::string start = variable + "=";
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\0', at), text.size());
    if (text.compare(at, start.size(), start) == 0)
      return text.substr(at + start.size(), end - at - start.size());
    at = end + 1;
  }
  return {};
}

std::string proc_dir::link(pid_t pid, const char* name) const {
  char path[64];
  std::snprintf(path, sizeof path, "%d/%s", pid, name);
  return link_at(directory_.get(), path);
}

std::uint64_t proc_dir::memory(pid_t pid) const {
  std::string text;
  std::uint64_t amount = 0;
  if (read(pid, "smaps_rollup", text)) {
    std::string_view value = field_of(text, "Pss");
    if (parse_number(next_word(value), amount)) return amount * 1024;
  }
  return resident(pid);
}

std::uint64_t proc_dir::resident(pid_t pid) const {
  std::string text;
  std::uint64_t pages = 0;
  if (!read(pid, "statm", text)) return 0;
  std::string_view rest = text;
  next_word(rest);
  if (!parse_number(next_word(rest), pages)) return 0;
  return pages * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

std::optional<uid_t> proc_dir::user(pid_t pid) const {
  std::string text;
  if (!read(pid, "status", text)) return {};
  // Real, effective, saved and file system, with tabs between them.
  std::string_view users = field_of(text, "Uid");
  users.remove_prefix(std::min(users.find('\t') + 1, users.size()));
  uid_t effective = 0;
  if (!parse_number(users.substr(0, users.find('\t')), effective)) return {};
  return effective;
}

std::vector<gid_t> proc_dir::groups(pid_t pid) const {
  std::string text;
  std::vector<gid_t> found;
  if (!read(pid, "status", text)) return found;
  // The effective one is the second of these, and the others have blanks between them.
  std::string_view own = field_of(text, "Gid");
  own.remove_prefix(std::min(own.find('\t') + 1, own.size()));
  gid_t group = 0;
  if (parse_number(own.substr(0, own.find('\t')), group)) found.push_back(group);
  for (std::string_view rest = field_of(text, "Groups"); !rest.empty();) {
    if (parse_number(next_word(rest), group)) found.push_back(group);
  }
  return found;
}

/// Whether the file of this descriptor is its user's own, or that user may be believed.
bool proc_dir::is_trusted(pid_t pid, const char* descriptor) const {
  const std::optional<uid_t> holder = user(pid);
  struct stat file {};
  return !holder || *holder == 0 || *holder == ::geteuid() ||
         ::fstatat(directory_.get(), descriptor, &file, 0) != 0 || file.st_uid == *holder;
}

proc_dir::hold proc_dir::holds(pid_t pid, const std::string& path,
                               const std::optional<file_id>& file) const {
  const std::string fds = std::to_string(pid) + "/fd";
  const std::string removed = path + " (deleted)";
  const std::string_view name = std::string_view(path).substr(path.rfind('/') + 1);
  hold found = hold::none;
  for (const std::string& fd : list(directory_.get(), fds.c_str())) {
    const std::string link = joined(fds, fd);
    const std::string target = link_at(directory_.get(), link.c_str());
    const bool is_removed = target == removed;
    // By what the file is and not by its path alone: that may be another one here than there.
    const bool is_present =
        file && target.ends_with(name) && identify_at(directory_.get(), link.c_str()) == file;
    if ((!is_removed && !is_present) || !is_trusted(pid, link.c_str())) continue;
    if (is_present) return hold::present;
    found = hold::removed;
  }
  return found;
}

bool proc_dir::may_look_into(pid_t pid) const {
  const std::string path = std::to_string(pid) + "/cwd";
  return !link_at(directory_.get(), path.c_str()).empty();
}

std::vector<watched_file> proc_dir::watched_files(pid_t pid) const {
  std::vector<watched_file> watched;
  const std::string fds = std::to_string(pid) + "/fd";
  std::string text;
  for (const std::string& fd : list(directory_.get(), fds.c_str())) {
    if (link_at(directory_.get(), joined(fds, fd).c_str()) != "anon_inode:inotify") continue;
    if (read(pid, joined("fdinfo", fd).c_str(), text)) append_watches(text, watched);
  }
  return watched;
}

bool proc_dir::is_pending(pid_t pid, int signal) const {
  std::string text;
  return read(pid, "status", text) &&
         (has_bit(field_of(text, "ShdPnd"), signal) || has_bit(field_of(text, "SigPnd"), signal));
}

bool proc_dir::lets_in(pid_t pid, int signal) const {
  const std::string tasks = std::to_string(pid) + "/task";
  std::string text;
  for (const std::string& task : list(directory_.get(), tasks.c_str())) {
    if (!read(pid, joined(joined("task", task), "status").c_str(), text)) continue;
    const std::string_view blocked = field_of(text, "SigBlk");
    if (!blocked.empty() && !has_bit(blocked, signal)) return true;
  }
  return false;
}

std::chrono::duration<double> proc_dir::uptime() const {
  std::string text;
  read_small_file(directory_.get(), "uptime", text);
  return std::chrono::duration<double>(std::strtod(text.c_str(), nullptr));
}

std::int64_t proc_dir::boot_time() const {
  std::string text;
  read_small_file(directory_.get(), "stat", text);
  std::int64_t seconds = 0;
  const std::size_t at = text.find("\nbtime ");
  if (at != std::string::npos) {
    const std::string_view value = std::string_view(text).substr(at + 7);
    parse_number(value.substr(0, value.find('\n')), seconds);
  }
  return seconds;
}

}  // namespace control
