#include "runner/log/rotating_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace runner {

namespace {

constexpr std::chrono::seconds kLookInterval{1};
constexpr std::chrono::minutes kSecondTry{1};

/// What of `text` is there up to the end of its first line.
std::size_t first_line(std::string_view text) {
  const std::size_t end = text.find('\n');
  return end == std::string_view::npos ? text.size() : end + 1;
}

/// What of the first `size` bytes of `text` are whole lines.
std::size_t whole_lines(std::string_view text, std::size_t size) {
  return size == 0 ? 0 : text.rfind('\n', size - 1) + 1;
}

std::string reason_text(int reason) {
  if (reason == ELOOP) return "it is a symbolic link";
  if (reason == EINVAL) return "it is neither a file nor a device";
  return std::strerror(reason);
}

/// When the file was made; in file systems that do not know it, when it was last written.
std::int64_t birth_of(int fd, const struct stat& status) {
  struct statx known {};
  if (::statx(fd, "", AT_EMPTY_PATH, STATX_BTIME, &known) == 0 &&
      (known.stx_mask & STATX_BTIME) != 0)
    return std::int64_t{known.stx_btime.tv_sec} * 1'000'000 + known.stx_btime.tv_nsec / 1000;
  return std::int64_t{status.st_mtim.tv_sec} * 1'000'000 + status.st_mtim.tv_nsec / 1000;
}

}  // namespace

rotating_file::rotating_file(std::string path, const log_settings& settings,
                             const line_stamp* stamp, own_lines& messages)
    : path_(std::move(path)),
      most_(settings.size),
      most_age_(settings.age),
      stamp_(stamp),
      messages_(messages),
      rotated_(path_, settings.keep, settings.compress, messages) {
  if (!open()) {
    error_ = "cannot open " + path_ + ": " + reason_text(errno);
  } else if (is_regular_) {
    rotated_.find();
  }
}

bool rotating_file::open() {
  // Whoever may write to the directory must not lead the log to another file by a link.
  unique_fd fd(
      ::open(path_.c_str(),
             O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0644));
  struct stat status {};
  if (!fd.valid() || ::fstat(fd.get(), &status) != 0) return false;
  if (!S_ISREG(status.st_mode) && !S_ISCHR(status.st_mode)) {
    errno = EINVAL;
    return false;
  }
  is_regular_ = S_ISREG(status.st_mode);
  fd_ = std::move(fd);
  written_ = is_regular_ ? static_cast<std::uint64_t>(status.st_size) : 0;
  is_torn_ = ends_inside_line();
  looked_at_ = steady_now();
  too_old_at_.reset();
  if (written_ > 0 && most_age_.count() > 0) {
    const std::chrono::microseconds age(wall_now() - birth_of(fd_.get(), status));
    const std::chrono::microseconds most(most_age_);
    too_old_at_ = looked_at_ + std::clamp(most - age, std::chrono::microseconds(0), most);
  }
  return true;
}

bool rotating_file::ends_inside_line() const {
  if (written_ == 0) return false;
  const unique_fd reader(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  char last = '\n';
  return ::pread(reader.get(), &last, 1, static_cast<off_t>(written_ - 1)) == 1 && last != '\n';
}

void rotating_file::write(std::string_view text) {
  while (!text.empty()) {
    const bool is_due = is_look_due();
    if (is_due && !is_line_open_) look();
    const std::size_t length = is_due && is_line_open_ ? first_line(text) : fitting(text);
    if (length == 0) {
      rotate();
      continue;
    }
    append(text.substr(0, length));
    text.remove_prefix(length);
  }
}

bool rotating_file::is_look_due() const {
  if (!is_regular_) return false;
  const time_point now = steady_now();
  return now - looked_at_ >= kLookInterval || (too_old_at_ && now >= *too_old_at_);
}

void rotating_file::look() {
  looked_at_ = steady_now();
  struct stat status {};
  if (!is_in_place(status)) {
    reopen();
    return;
  }
  // Others may have made it shorter.
  written_ = static_cast<std::uint64_t>(status.st_size);
  if (written_ == 0) too_old_at_.reset();
  const bool is_too_old = too_old_at_ && looked_at_ >= *too_old_at_;
  const bool is_too_large = lost_.any() && lost_.reason() == EFBIG;
  if (written_ > 0 && (is_too_old || is_too_large)) rotate();
}

bool rotating_file::is_in_place(struct stat& status) const {
  struct stat own {};
  return ::lstat(path_.c_str(), &status) == 0 && ::fstat(fd_.get(), &own) == 0 &&
         status.st_dev == own.st_dev && status.st_ino == own.st_ino;
}

void rotating_file::rotate() {
  struct stat status {};
  if (is_in_place(status) && !rotated_.add()) {
    complain("rotate");
    // It grows on, and the next try comes later.
    written_ = 0;
    if (too_old_at_) too_old_at_ = steady_now() + kSecondTry;
    return;
  }
  reopen();
}

void rotating_file::reopen() {
  if (open()) {
    has_complained_ = false;
    // Only now: until there is another file, the newest of them is written on.
    rotated_.tidy();
    return;
  }
  // What was open stays so: better a file of another name than none.
  complain("open");
  written_ = 0;
  too_old_at_.reset();
}

void rotating_file::complain(const char* what) {
  if (!has_complained_)
    messages_.add(std::string("cannot ") + what + " " + path_ + ": " + std::strerror(errno));
  has_complained_ = true;
}

std::size_t rotating_file::fitting(std::string_view text) const {
  if (!is_regular_ || most_ == 0 || written_ + text.size() <= most_) return text.size();
  const std::size_t room = written_ < most_ ? static_cast<std::size_t>(most_ - written_) : 0;
  const std::size_t whole = whole_lines(text, room);
  if (whole > 0) return whole;
  return is_line_open_ || written_ == 0 ? first_line(text) : 0;
}

void rotating_file::append(std::string_view text) {
  if (lost_.is_inside()) {
    text = lost_.skip(text);
    is_line_open_ = lost_.is_inside();
    if (text.empty()) return;
  }
  const bool was_empty = written_ == 0;
  const std::string before = lost_.any() || is_torn_ ? first_words() : std::string();
  const std::size_t begun = put(before);
  const std::size_t written = begun == before.size() ? put(text) : 0;
  if (written < text.size()) {
    lose(text, written, begun);
    return;
  }
  lost_.clear();
  is_torn_ = false;
  is_line_open_ = text.back() != '\n';
  if (was_empty && is_regular_ && most_age_.count() > 0 && !too_old_at_)
    too_old_at_ = steady_now() + most_age_;
}

std::string rotating_file::first_words() const {
  std::string words;
  if (is_torn_) words += '\n';
  if (!lost_.any()) return words;
  if (stamp_ != nullptr) words += stamp_->text();
  return words.append(own_lines::kPrefix).append(lost_.report()).append(1, '\n');
}

void rotating_file::lose(std::string_view text, std::size_t written, std::size_t before) {
  const int reason = errno;
  const std::size_t whole = whole_lines(text, written);
  if (whole > 0) {
    lost_.clear();
    is_torn_ = false;
    before = 0;
  } else if (is_line_open_) {
    // Its beginning stands in the file already.
    is_torn_ = true;
  }
  take_back(written - whole + before);
  lost_.add(text.substr(whole), reason);
  is_line_open_ = lost_.is_inside();
}

std::size_t rotating_file::put(std::string_view text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t count = ::write(fd_.get(), text.data() + done, text.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  written_ += done;
  return done;
}

void rotating_file::take_back(std::size_t count) {
  struct stat status {};
  if (count == 0 || !is_regular_ || ::fstat(fd_.get(), &status) != 0) return;
  if (::ftruncate(fd_.get(), status.st_size - static_cast<off_t>(count)) != 0) {
    is_torn_ = true;
    return;
  }
  written_ -= std::min<std::uint64_t>(written_, count);
}

std::optional<time_point> rotating_file::next_deadline() const {
  return is_line_open_ ? std::nullopt : too_old_at_;
}

void rotating_file::on_deadline() {
  if (too_old_at_ && !is_line_open_ && steady_now() >= *too_old_at_) look();
}

}  // namespace runner
