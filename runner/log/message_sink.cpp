#include "runner/log/message_sink.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <utility>

#include "common/misc/bounded_text.h"
#include "runner/log/digits.h"
#include "runner/log/own_lines.h"

namespace runner {

namespace {

constexpr std::chrono::seconds kPatience{1};
constexpr std::chrono::seconds kConnectInterval{1};
/// What a local syslog takes in one message, and what the journal takes as one line.
constexpr std::size_t kMostSyslog = 8000;
constexpr std::size_t kMostJournal = std::size_t{48} * 1024;

/// A name can hold anything but a slash, and must not end a field.
std::string printable(std::string_view name) {
  std::string out(name);
  std::replace_if(
      out.begin(), out.end(), [](char ch) { return ch > '\0' && ch < ' '; }, '?');
  return out;
}

bool is_nobody_there(int reason) {
  return reason == ECONNREFUSED || reason == ENOTCONN || reason == ECONNRESET ||
         reason == EDESTADDRREQ || reason == EPIPE || reason == EBADF;
}

iovec part(std::string_view text) {
  // Only read, though the type cannot say so.
  return {const_cast<char*>(text.data()), text.size()};
}

/// What stands in front of a message of a daemon that is no error, as RFC 3164 has it:
/// "<30>Nov 15 10:02:03 NAME[PID]: ".
std::string syslog_head(const std::tm& local, const std::string& name) {
  constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::array<char, 8> clock{};
  char* to = put_digits(clock.data(), static_cast<unsigned long>(local.tm_hour), 2);
  *to++ = ':';
  to = put_digits(to, static_cast<unsigned long>(local.tm_min), 2);
  *to++ = ':';
  put_digits(to, static_cast<unsigned long>(local.tm_sec), 2);
  std::string head = "<30>";
  head += kMonths[static_cast<std::size_t>(local.tm_mon) % kMonths.size()];
  head += local.tm_mday < 10 ? "  " : " ";
  head += std::to_string(local.tm_mday) + ' ';
  head.append(clock.data(), clock.size()).append(1, ' ').append(name);
  return head + '[' + std::to_string(::getpid()) + "]: ";
}

}  // namespace

message_sink::message_sink(log_target target, std::string_view name, std::string socket)
    : target_(target),
      name_(printable(name)),
      socket_(std::move(socket)),
      most_(target == log_target::syslog ? kMostSyslog : kMostJournal) {
  connect();
}

const char* message_sink::usual_socket(log_target target) {
  return target == log_target::syslog ? "/dev/log" : "/run/systemd/journal/socket";
}

bool message_sink::connect() {
  connected_at_ = steady_now();
  unique_fd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!fd.valid() || !copy_bounded(address.sun_path, socket_.c_str()) ||
      ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return false;
  fd_ = std::move(fd);
  return true;
}

void message_sink::take(std::string_view text) {
  if (text.empty()) return;
  waiting_ = text;
  is_line_open_ = text.back() != '\n';
  send_all();
}

void message_sink::on_writable() {
  send_all();
}

void message_sink::on_deadline() {
  if (busy_until_ && steady_now() >= *busy_until_) lose(ETIMEDOUT);
}

void message_sink::send_all() {
  if (lost_.any()) {
    waiting_ = lost_.skip(waiting_);
    if (waiting_.empty()) return;
    if (send(own_lines::kPrefix, lost_.report()) != result::sent) {
      lose(errno);
      return;
    }
    lost_.clear();
  }
  while (send_next()) {
  }
}

bool message_sink::send_next() {
  if (waiting_.empty()) return false;
  const std::size_t line_end = waiting_.find('\n');
  const std::size_t room = most_ - begun_.size();
  const std::size_t length = std::min({line_end, waiting_.size(), room});
  const bool is_complete = length == line_end;
  if (!is_complete && length < room) {
    begun_.append(waiting_);
    waiting_ = {};
    return false;
  }
  if (!is_part_sent_ || !begun_.empty() || length > 0) {
    const result sent = send(begun_, waiting_.substr(0, length));
    if (sent == result::busy && !busy_until_) busy_until_ = steady_now() + kPatience;
    if (sent == result::failed) lose(errno);
    if (sent != result::sent) return false;
  }
  busy_until_.reset();
  std::string().swap(begun_);
  is_part_sent_ = !is_complete;
  waiting_.remove_prefix(is_complete ? length + 1 : length);
  return true;
}

message_sink::result message_sink::send(std::string_view begin, std::string_view end) {
  const result first = try_to_send(begin, end);
  if (first != result::failed || !is_nobody_there(errno)) return first;
  // Somebody else may listen there by now.
  if (steady_now() - connected_at_ >= kConnectInterval && connect()) return try_to_send(begin, end);
  errno = ECONNREFUSED;
  return result::failed;
}

message_sink::result message_sink::try_to_send(std::string_view begin, std::string_view end) {
  set_head();
  const std::string_view last = target_ == log_target::journal ? "\n" : "";
  std::array<iovec, 4> parts = {part(head_), part(begin), part(end), part(last)};
  msghdr message{};
  message.msg_iov = parts.data();
  message.msg_iovlen = parts.size();
  ssize_t sent = 0;
  do
    sent = ::sendmsg(fd_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  while (sent < 0 && errno == EINTR);
  if (sent >= 0) return result::sent;
  return errno == EAGAIN || errno == ENOBUFS ? result::busy : result::failed;
}

void message_sink::set_head() {
  const std::int64_t second = wall_now() / 1'000'000;
  if (second == head_second_) return;
  const bool is_first = head_second_ < 0;
  head_second_ = second;
  if (target_ == log_target::syslog) {
    const auto time = static_cast<std::time_t>(second);
    std::tm local{};
    ::localtime_r(&time, &local);
    head_ = syslog_head(local, name_);
  } else if (is_first) {
    head_ = "PRIORITY=6\nSYSLOG_FACILITY=3\nSYSLOG_IDENTIFIER=" + name_ + "\nMESSAGE=";
  }
}

void message_sink::lose(int reason) {
  lost_.add(waiting_.empty() ? std::string_view(begun_) : waiting_, reason);
  waiting_ = {};
  std::string().swap(begun_);
  is_part_sent_ = false;
  busy_until_.reset();
}

}  // namespace runner
