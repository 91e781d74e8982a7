#include "control/logs/program_lines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <tuple>
#include <utility>

#include "common/misc/unique_fd.h"
#include "control/logs/gzip_reader.h"
#include "runner/log/line_stamp.h"
#include "runner/log/rotated_name.h"

namespace control {
namespace {

using runner::rotated_name;
using kind = runner::rotated_name::kind;

std::int64_t now() {
  const auto since = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(since).count();
}

std::int64_t last_change(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) return now();
  return std::int64_t{status.st_mtim.tv_sec} * 1'000'000 + status.st_mtim.tv_nsec / 1000;
}

/// Where the last `count` lines of `text` begin; what follows the last line end is none.
std::size_t last_lines(std::string_view text, std::size_t count) {
  std::size_t at = text.rfind('\n');
  if (at == std::string_view::npos) return 0;
  for (; count > 0; --count) {
    if (at == 0) return 0;
    at = text.rfind('\n', at - 1);
    if (at == std::string_view::npos) return 0;
  }
  return at + 1;
}

/// The last `count` lines before `end`, and what follows them.
std::string text_before(int fd, off_t end, std::size_t count) {
  constexpr std::size_t kBlock = 65536;
  std::string text;
  std::size_t begin = 0;
  while (end > 0 && begin == 0) {
    // Twice as much each time: a long way is copied a few times only.
    const std::size_t length = std::min(static_cast<std::size_t>(end), text.size() + kBlock);
    std::string block(length, '\0');
    const ssize_t got = ::pread(fd, block.data(), length, end - static_cast<off_t>(length));
    if (got != static_cast<ssize_t>(length)) break;
    end -= static_cast<off_t>(length);
    text.insert(0, block);
    begin = last_lines(text, count);
  }
  return text.substr(begin);
}

/// The last `count` lines of a rotated file.
std::string rotated_text(const std::string& path, const rotated_name& name, std::size_t count) {
  const unique_fd file(
      ::open(runner::rotated_path(path, {name.moment, kind::plain}).c_str(), O_RDONLY | O_CLOEXEC));
  if (file.valid()) return text_before(file.get(), ::lseek(file.get(), 0, SEEK_END), count);
  std::string text;
  if (!read_compressed(runner::rotated_path(path, {name.moment, kind::compressed}), text))
    return {};
  return text.substr(last_lines(text, count));
}

/// Each rotated file once, oldest first.
std::vector<rotated_name> rotated_files(const std::string& path) {
  std::vector<rotated_name> all = runner::find_rotated(path);
  // A file that was given its compressed name while the directory was read can be missing. It is
  // there the second time.
  const std::vector<rotated_name> again = runner::find_rotated(path);
  all.insert(all.end(), again.begin(), again.end());
  std::sort(all.begin(), all.end(), [](const rotated_name& a, const rotated_name& b) {
    return std::tie(a.moment, a.what) < std::tie(b.moment, b.what);
  });
  const auto same = [](const rotated_name& a, const rotated_name& b) {
    return a.moment == b.moment;
  };
  all.erase(std::unique(all.begin(), all.end(), same), all.end());
  return all;
}

/// Appends one line. Those without a time have that of the line before, or else `otherwise`.
void add_line(std::string_view text, std::size_t log, std::int64_t& last_stamp,
              std::int64_t otherwise, std::vector<program_line>& out) {
  if (const auto stamp = runner::parse_stamp(text)) last_stamp = *stamp;
  out.push_back({log, last_stamp != 0 ? last_stamp : otherwise, std::string(text)});
}

/// Appends the lines of `text`, a last one without an end too.
void add_lines(std::string_view text, std::size_t log, std::int64_t& last_stamp,
               std::int64_t otherwise, std::vector<program_line>& out) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    add_line(text.substr(0, end), log, last_stamp, otherwise, out);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

enum class held_file { same, other, unknown };

/// Whether the name belongs to the file that is open.
held_file compare(int fd, const std::string& path) {
  struct stat held {};
  struct stat named {};
  if (::fstat(fd, &held) != 0 || ::stat(path.c_str(), &named) != 0) return held_file::unknown;
  return held.st_dev == named.st_dev && held.st_ino == named.st_ino ? held_file::same
                                                                    : held_file::other;
}

}  // namespace

program_lines::program_lines(std::string path, std::size_t log)
    : log_(log), file_(std::move(path)), newest_rotated_(open(file_, true)) {}

std::int64_t program_lines::open(file_tail& file, bool at_end) {
  // A file that is rotated in between would be counted among those before it.
  constexpr int kTries = 100;
  std::int64_t newest = 0;
  for (int i = 0; i < kTries; ++i) {
    file.open(at_end);
    const std::vector<rotated_name> rotated = rotated_files(file.path());
    newest = rotated.empty() ? 0 : rotated.back().moment;
    if (file.fd() < 0 || compare(file.fd(), file.path()) == held_file::same) break;
  }
  return newest;
}

std::vector<program_line> program_lines::last(std::size_t count, bool to_be_continued) {
  std::string text;
  std::vector<program_line> lines;
  if (file_.fd() >= 0) {
    text = text_before(file_.fd(), ::lseek(file_.fd(), 0, SEEK_CUR), count);
    const std::size_t complete = text.rfind('\n') + 1;
    if (to_be_continued) {
      begun_ = text.substr(complete);
      text.resize(complete);
    }
    add_lines(text, log_, last_stamp_, last_change(file_.fd()), lines);
  }
  const std::vector<rotated_name> rotated = rotated_files(path());
  for (auto one = rotated.rbegin(); one != rotated.rend() && lines.size() < count; ++one) {
    if (one->moment > newest_rotated_) continue;
    std::int64_t stamp = 0;
    std::vector<program_line> older;
    add_lines(rotated_text(path(), *one, count - lines.size()), log_, stamp, one->moment, older);
    lines.insert(lines.begin(), std::make_move_iterator(older.begin()),
                 std::make_move_iterator(older.end()));
  }
  if (lines.size() > count)
    lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(count));
  return lines;
}

std::vector<program_line> program_lines::next() {
  std::vector<program_line> lines;
  const auto take = [&](std::string_view piece) { feed(piece, lines); };
  file_.read_on(take);
  while (file_.is_replaced()) {
    // Nothing is written to the old one from now on.
    file_.read_on(take);
    file_tail newer(path());
    const std::int64_t newest = open(newer, false);
    read_rotated(newest, lines);
    file_ = std::move(newer);
    file_.read_on(take);
  }
  return lines;
}

void program_lines::read_rotated(std::int64_t newest, std::vector<program_line>& out) {
  bool is_first = true;
  for (const rotated_name& one : rotated_files(path())) {
    if (one.moment <= newest_rotated_ || one.moment > newest) continue;
    const std::string name = runner::rotated_path(path(), {one.moment, kind::plain});
    // The first is the one that is open, unless that has been removed already.
    const bool is_read =
        is_first && file_.fd() >= 0 && compare(file_.fd(), name) != held_file::other;
    is_first = false;
    if (!is_read) feed(rotated_text(path(), one, SIZE_MAX), out);
  }
  newest_rotated_ = newest;
}

void program_lines::feed(std::string_view piece, std::vector<program_line>& out) {
  begun_ += piece;
  const std::size_t complete = begun_.rfind('\n') + 1;
  add_lines(std::string_view(begun_).substr(0, complete), log_, last_stamp_, now(), out);
  begun_.erase(0, complete);
}

std::vector<program_line> merge(std::vector<std::vector<program_line>> logs) {
  std::vector<program_line> merged;
  std::vector<std::size_t> heads(logs.size(), 0);
  for (;;) {
    std::size_t first = logs.size();
    for (std::size_t i = 0; i < logs.size(); ++i) {
      if (heads[i] == logs[i].size()) continue;
      if (first == logs.size() || logs[i][heads[i]].time < logs[first][heads[first]].time)
        first = i;
    }
    if (first == logs.size()) return merged;
    merged.push_back(std::move(logs[first][heads[first]++]));
  }
}

}  // namespace control
