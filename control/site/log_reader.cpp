#include "control/site/log_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <ctime>
#include <utility>

#include "common/misc/unique_fd.h"

namespace control {
namespace {

using kind = log_event::kind;

/// More messages than these never wait for their time: one of the times was not written.
constexpr std::size_t kMostWaiting = 4096;

constexpr std::string_view kStart = "keelmond Start PID: ";
constexpr std::string_view kLaunched = "launched sub process PID: ";
constexpr std::string_view kEnded = "exited process PID: ";
constexpr std::string_view kNotExecutable = "access(X_OK)";
constexpr std::string_view kRefused = "server.ini: entry ";

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

/// "2026-11-15 10:02:03", and years of five digits when they come.
bool is_time(std::string_view line) {
  constexpr std::string_view kBehindYear = "-00-00 00:00:00";
  if (line.size() < kBehindYear.size() + 4) return false;
  const std::size_t year = line.size() - kBehindYear.size();
  if (!std::all_of(line.begin(), line.begin() + static_cast<std::ptrdiff_t>(year), is_digit))
    return false;
  for (std::size_t i = 0; i < kBehindYear.size(); ++i) {
    const char expected = kBehindYear[i];
    if (expected == '0' ? !is_digit(line[year + i]) : line[year + i] != expected) return false;
  }
  return true;
}

pid_t number_at(std::string_view text, std::size_t at) {
  pid_t number = 0;
  std::from_chars(text.data() + std::min(at, text.size()), text.data() + text.size(), number);
  return number;
}

/// The text between the last "(" and the last ")".
std::string in_parentheses(std::string_view text) {
  const std::size_t close = text.rfind(')');
  const std::size_t open = text.rfind('(', close);
  if (open == std::string_view::npos || close == std::string_view::npos) return {};
  return std::string(text.substr(open + 1, close - open - 1));
}

log_event classify(std::string_view line) {
  log_event event;
  event.message = line.substr(0, line.find_last_not_of(' ') + 1);
  if (line.starts_with(kStart)) {
    event.what = kind::supervisor_started;
    event.pid = number_at(line, kStart.size());
  } else if (line.starts_with(kLaunched)) {
    event.what = kind::launched;
    event.pid = number_at(line, kLaunched.size());
  } else if (line.starts_with(kEnded)) {
    event.what = kind::ended;
  } else if (line.starts_with(kNotExecutable)) {
    event.what = kind::not_executable;
    event.program = in_parentheses(line);
  } else if (line.starts_with(kRefused)) {
    event.what = kind::refused;
    event.program = in_parentheses(line.substr(0, line.find(") refused") + 1));
  }
  return event;
}

bool is_closing_line(std::string_view line) {
  return line.find("inish for close log file.") != std::string_view::npos;
}

bool is_banner(std::string_view line) {
  return line.starts_with("-------------333") && line.ends_with("Running");
}

std::string_view without_end(std::string_view line) {
  while (line.ends_with('\n') || line.ends_with('\r'))
    line.remove_suffix(1);
  while (line.starts_with('\r'))
    line.remove_prefix(1);
  return line;
}

/// Hands out what can be read, piece by piece.
template <typename Handler>
void for_each_piece(int fd, Handler handle) {
  std::vector<char> chunk(std::size_t{64} * 1024);
  for (ssize_t got; (got = ::read(fd, chunk.data(), chunk.size())) > 0;)
    handle(std::string_view(chunk.data(), static_cast<std::size_t>(got)));
}

}  // namespace

void log_parser::feed(std::string_view piece) {
  for (std::size_t end; (end = piece.find('\n')) != std::string_view::npos;) {
    rest_ += piece.substr(0, end);
    take_line(without_end(rest_));
    rest_.clear();
    piece.remove_prefix(end + 1);
  }
  rest_ += piece;
}

void log_parser::take_line(std::string_view line) {
  if (line.empty()) return;
  if (is_time(line)) {
    last_time_ = line;
    if (waiting_.empty()) return;
    waiting_.front().time = last_time_;
    complete_.push_back(std::move(waiting_.front()));
    waiting_.pop_front();
    return;
  }
  if (is_banner(line)) {
    // A daemon that was killed may have left a message without its time. Those that follow would
    // all get the time of the one before.
    give_up_waiting();
  } else if (is_closing_line(line)) {
    give_up_waiting();
    log_event event;
    event.what = kind::supervisor_ended;
    event.time = last_time_;
    event.message = line.substr(0, line.find_last_not_of(' ') + 1);
    complete_.push_back(std::move(event));
  } else {
    waiting_.push_back(classify(line));
    if (waiting_.size() > kMostWaiting) give_up_waiting();
  }
}

void log_parser::give_up_waiting() {
  for (log_event& event : waiting_) {
    event.time = last_time_;
    complete_.push_back(std::move(event));
  }
  waiting_.clear();
}

void log_parser::finish() {
  if (!rest_.empty()) take_line(without_end(std::exchange(rest_, {})));
  give_up_waiting();
}

std::vector<log_event> log_parser::take() {
  return std::exchange(complete_, {});
}

std::int64_t seconds_of(const log_event& event) {
  std::tm local{};
  if (::strptime(event.time.c_str(), "%Y-%m-%d %H:%M:%S", &local) == nullptr) return 0;
  local.tm_isdst = -1;
  return static_cast<std::int64_t>(std::mktime(&local));
}

std::vector<log_event> read_last_events(const std::string& path, std::int64_t bytes) {
  const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.valid()) return {};
  const off_t size = ::lseek(file.get(), 0, SEEK_END);
  const off_t begin = std::max<off_t>(size - std::min<off_t>(bytes, size), 0);
  ::lseek(file.get(), begin, SEEK_SET);
  log_parser parser;
  bool at_line = begin == 0;
  for_each_piece(file.get(), [&](std::string_view piece) {
    if (!at_line) {
      // What is left of the line in which the reading began.
      const std::size_t end = piece.find('\n');
      at_line = end != std::string_view::npos;
      piece.remove_prefix(at_line ? end + 1 : piece.size());
    }
    parser.feed(piece);
  });
  parser.finish();
  return parser.take();
}

log_counts count_events(const std::string& path) {
  const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  log_counts counts;
  std::string rest;
  for_each_piece(file.get(), [&](std::string_view piece) {
    rest += piece;
    std::string_view whole = rest;
    for (std::size_t end; (end = whole.find('\n')) != std::string_view::npos;) {
      counts.launched += whole.starts_with(kLaunched) ? 1U : 0U;
      counts.ended += whole.starts_with(kEnded) ? 1U : 0U;
      whole.remove_prefix(end + 1);
    }
    rest.erase(0, rest.size() - whole.size());
  });
  return counts;
}

}  // namespace control
