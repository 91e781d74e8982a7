#include "runner/log/program_log.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "common/misc/unique_fd.h"
#include "runner/log/file_sink.h"
#include "runner/log/message_sink.h"
#include "runner/log/own_lines.h"
#include "runner/log/page_buffer.h"
#include "runner/log/standard_error.h"

namespace runner {

namespace {

/// How much is read at once, and how much lines with stamps take at once.
constexpr std::size_t kChunk = std::size_t{64} * 1024;
/// How much a program may be ahead.
constexpr int kPipeSize = 256 * 1024;
/// How much may stay in memory where nothing happens, and when the rest is given back.
constexpr std::size_t kSmall = 1024;
constexpr std::chrono::seconds kGiveBackAfter{1};

/// One pipe and what becomes of it.
struct stream {
  unique_fd reader;
  unique_fd writer;
  std::unique_ptr<log_sink> sink;

  [[nodiscard]] bool is_waiting() const { return sink->waits_for() >= 0; }
};

bool make_pipe(stream& one) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  one.reader.reset(ends[0]);
  one.writer.reset(ends[1]);
  // The program's end waits as every pipe does. What the system grants of the size is enough.
  ::fcntl(ends[1], F_SETPIPE_SZ, kPipeSize);
  return ::fcntl(ends[0], F_SETFL, O_NONBLOCK) == 0;
}

std::optional<time_point> earlier(std::optional<time_point> a, std::optional<time_point> b) {
  if (!a || !b) return a ? a : b;
  return std::min(*a, *b);
}

}  // namespace

class program_log::implementation final {
 public:
  explicit implementation(const log_settings& settings);

  [[nodiscard]] const std::string& error() const { return error_; }
  [[nodiscard]] const char* error_key() const { return error_key_; }
  [[nodiscard]] int end_of(std::size_t number, int inherited) const;
  std::size_t poll_requests(std::span<pollfd, kMostRequests> out) const;
  void on_ready(int fd);
  [[nodiscard]] std::optional<time_point> next_deadline() const;
  void on_deadline();
  void write_own_line(std::string_view text);
  void on_program_end();
  [[nodiscard]] bool is_compressor(pid_t pid) const;
  bool on_child_end(pid_t pid, int status);
  void drain_and_close();

 private:
  void add_file(const char* key, const std::string& path, const log_settings& settings);
  [[nodiscard]] std::span<stream> streams() { return {streams_.data(), count_}; }
  [[nodiscard]] std::span<const stream> streams() const { return {streams_.data(), count_}; }
  std::size_t read_some(stream& from);
  enum class when_busy { leave_it, wait };
  /// Takes what is in the pipe now, unless a reader is not ready for it.
  void drain(stream& from, when_busy busy);
  void wait_for_reader(stream& from);
  /// Writes the launcher's own lines when they can stand there.
  void speak();

  page_buffer memory_{2 * kChunk};
  own_lines own_;
  std::string spoken_;  ///< The own lines that the sink has taken last.
  std::array<stream, kMostRequests> streams_;
  std::size_t count_ = 0;
  std::string error_;
  const char* error_key_ = "to";
  std::optional<time_point> give_back_at_;
};

program_log::implementation::implementation(const log_settings& settings) {
  // As errors of single calls both can be handled.
  ::signal(SIGXFSZ, SIG_IGN);
  ::signal(SIGPIPE, SIG_IGN);
  if (settings.target == log_target::inherit) return;
  if (memory_.space().empty()) {
    error_ = std::string("cannot allocate memory for the log: ") + std::strerror(errno);
    return;
  }
  if (settings.target == log_target::file) {
    error_key_ = "file";
    add_file("file", settings.file, settings);
    if (!settings.stderr_file.empty()) add_file("stderr", settings.stderr_file, settings);
  } else {
    streams_[count_++].sink = std::make_unique<message_sink>(
        settings.target, settings.name, message_sink::usual_socket(settings.target));
  }
  for (stream& one : streams()) {
    if (error_.empty() && !make_pipe(one))
      error_ = std::string("cannot make a pipe for the log: ") + std::strerror(errno);
  }
}

void program_log::implementation::add_file(const char* key, const std::string& path,
                                           const log_settings& settings) {
  auto sink = std::make_unique<file_sink>(path, settings, memory_.space().subspan(kChunk), own_);
  if (error_.empty() && !sink->error().empty()) {
    error_ = sink->error();
    error_key_ = key;
  }
  streams_[count_++].sink = std::move(sink);
}

int program_log::implementation::end_of(std::size_t number, int inherited) const {
  if (count_ == 0) return inherited;
  return streams_[std::min(number, count_ - 1)].writer.get();
}

std::size_t program_log::implementation::poll_requests(std::span<pollfd, kMostRequests> out) const {
  for (std::size_t i = 0; i < count_; ++i) {
    const stream& one = streams_[i];
    if (one.is_waiting())
      out[i] = {one.sink->waits_for(), POLLOUT, 0};
    else
      out[i] = {one.reader.get(), POLLIN, 0};
  }
  return count_;
}

void program_log::implementation::on_ready(int fd) {
  for (stream& one : streams()) {
    if (one.is_waiting()) {
      if (fd == one.sink->waits_for()) one.sink->on_writable();
    } else if (fd == one.reader.get()) {
      read_some(one);
    }
  }
  speak();
}

std::size_t program_log::implementation::read_some(stream& from) {
  const std::span<char> space = memory_.space().first(kChunk);
  const ssize_t count = ::read(from.reader.get(), space.data(), space.size());
  if (count <= 0) return 0;
  const auto length = static_cast<std::size_t>(count);
  if (length > kSmall) give_back_at_ = steady_now() + kGiveBackAfter;
  from.sink->take({space.data(), length});
  return length;
}

void program_log::implementation::drain(stream& from, when_busy busy) {
  int left = 0;
  if (::ioctl(from.reader.get(), FIONREAD, &left) != 0) return;
  for (;;) {
    if (busy == when_busy::wait) wait_for_reader(from);
    if (left <= 0 || from.is_waiting()) return;
    const std::size_t count = read_some(from);
    if (count == 0) return;
    left -= static_cast<int>(count);
  }
}

void program_log::implementation::speak() {
  if (own_.empty() || count_ == 0 || streams_[0].is_waiting()) return;
  log_sink& sink = *streams_[0].sink;
  if (sink.is_line_open() && steady_now() < *own_.until()) return;
  spoken_ = sink.is_line_open() ? "\n" : "";
  spoken_ += own_.take();
  sink.take(spoken_);
}

std::optional<time_point> program_log::implementation::next_deadline() const {
  std::optional<time_point> next = give_back_at_;
  for (const stream& one : streams())
    next = earlier(next, one.sink->next_deadline());
  if (count_ > 0 && !streams_[0].is_waiting()) next = earlier(next, own_.until());
  return next;
}

void program_log::implementation::on_deadline() {
  for (stream& one : streams())
    one.sink->on_deadline();
  speak();
  if (!give_back_at_ || steady_now() < *give_back_at_) return;
  give_back_at_.reset();
  // What a reader is waited for with is still in it.
  if (std::none_of(streams().begin(), streams().end(),
                   [](const stream& one) { return one.is_waiting(); }))
    memory_.give_back();
}

void program_log::implementation::write_own_line(std::string_view text) {
  own_.add(text);
  if (count_ > 0) {
    drain(streams_[0], when_busy::leave_it);
    speak();
    return;
  }
  write_standard_error(own_.take());
}

void program_log::implementation::on_program_end() {
  for (stream& one : streams()) {
    drain(one, when_busy::leave_it);
    if (!one.is_waiting() && one.sink->is_line_open()) one.sink->take("\n");
  }
  speak();
}

bool program_log::implementation::is_compressor(pid_t pid) const {
  return pid > 0 && std::any_of(streams().begin(), streams().end(),
                                [pid](const stream& one) { return one.sink->compressor() == pid; });
}

bool program_log::implementation::on_child_end(pid_t pid, int status) {
  const bool was_one = std::any_of(streams().begin(), streams().end(), [&](const stream& one) {
    return one.sink->on_child_end(pid, status);
  });
  speak();
  return was_one;
}

void program_log::implementation::wait_for_reader(stream& from) {
  while (from.is_waiting()) {
    pollfd request = {from.sink->waits_for(), POLLOUT, 0};
    const auto left = from.sink->next_deadline().value_or(steady_now()) - steady_now();
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    if (::poll(&request, 1, static_cast<int>(std::max(milliseconds, decltype(milliseconds){0}))) >
        0)
      from.sink->on_writable();
    from.sink->on_deadline();
  }
}

void program_log::implementation::drain_and_close() {
  for (stream& one : streams())
    drain(one, when_busy::wait);
  on_program_end();
  for (stream& one : streams())
    wait_for_reader(one);
  count_ = 0;
  streams_ = {};
}

program_log::program_log(const log_settings& settings)
    : inner_(std::make_unique<implementation>(settings)) {}

program_log::~program_log() = default;

const std::string& program_log::error() const {
  return inner_->error();
}

const char* program_log::error_key() const {
  return inner_->error_key();
}

int program_log::stdout_end() const {
  return inner_->end_of(0, STDOUT_FILENO);
}

int program_log::stderr_end() const {
  return inner_->end_of(1, STDERR_FILENO);
}

std::size_t program_log::poll_requests(std::span<pollfd, kMostRequests> out) const {
  return inner_->poll_requests(out);
}

void program_log::on_ready(int fd) {
  inner_->on_ready(fd);
}

std::optional<time_point> program_log::next_deadline() const {
  return inner_->next_deadline();
}

void program_log::on_deadline() {
  inner_->on_deadline();
}

void program_log::write_own_line(std::string_view text) {
  inner_->write_own_line(text);
}

void program_log::on_program_end() {
  inner_->on_program_end();
}

bool program_log::is_compressor(pid_t pid) const {
  return inner_->is_compressor(pid);
}

bool program_log::on_child_end(pid_t pid, int status) {
  return inner_->on_child_end(pid, status);
}

void program_log::drain_and_close() {
  inner_->drain_and_close();
}

}  // namespace runner
