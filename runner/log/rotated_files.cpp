#include "runner/log/rotated_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/misc/unique_fd.h"
#include "runner/log/gzip_child.h"
#include "runner/log/rotated_name.h"
#include "runner/log/steady_time.h"

namespace runner {

rotated_files::rotated_files(std::string path, unsigned keep, bool compress, own_lines& messages)
    : path_(std::move(path)), keep_(keep), compress_(compress), messages_(messages) {}

void rotated_files::find() {
  using kind = rotated_name::kind;
  files_.clear();
  for (const rotated_name& name : find_rotated(path_)) {
    const bool is_known = !files_.empty() && files_.back().moment == name.moment;
    if (name.what == kind::half_compressed) {
      ::unlink(half_compressed(name.moment).c_str());
    } else if (!is_known) {
      files_.push_back({name.moment, name.what == kind::plain});
    } else {
      // Both forms: the compressed one has its name only when it is complete.
      ::unlink(file(name.moment).c_str());
      files_.back().to_compress = false;
    }
  }
  tidy();
}

bool rotated_files::add() {
  // A clock that was set back does not mix up the order, and no name is used twice.
  const std::int64_t last = files_.empty() ? 0 : files_.back().moment;
  const std::int64_t moment = std::max(wall_now(), last + 1);
  if (std::rename(path_.c_str(), file(moment).c_str()) != 0) return false;
  files_.push_back({moment, true});
  is_newest_written_ = true;
  return true;
}

void rotated_files::tidy() {
  is_newest_written_ = false;
  while (files_.size() > keep_) {
    ::unlink(file(files_.front().moment).c_str());
    ::unlink(compressed(files_.front().moment).c_str());
    files_.erase(files_.begin());
  }
  compress_next();
}

void rotated_files::compress_next() {
  if (!compress_ || compressor_ != 0) return;
  for (auto one = files_.rbegin(); one != files_.rend(); ++one) {
    if (!one->to_compress || (is_newest_written_ && one == files_.rbegin())) continue;
    one->to_compress = false;
    if (compress(one->moment) && compressor_ != 0) return;
  }
}

bool rotated_files::compress(std::int64_t moment) {
  const unique_fd from(::open(file(moment).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!from.valid() && errno == ENOENT) return true;
  struct stat status {};
  if (from.valid() && ::fstat(from.get(), &status) == 0) {
    const unique_fd to(::open(half_compressed(moment).c_str(),
                              O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                              status.st_mode & 0777));
    if (to.valid()) {
      const pid_t child = start_gzip(from.get(), to.get());
      if (child > 0) {
        compressor_ = child;
        compressing_ = moment;
        return true;
      }
      const int reason = errno;
      ::unlink(half_compressed(moment).c_str());
      errno = reason;
    }
  }
  messages_.add("cannot compress " + file(moment) + ": " + std::strerror(errno));
  return false;
}

bool rotated_files::on_child_end(pid_t pid, int status) {
  if (pid != compressor_ || pid <= 0) return false;
  compressor_ = 0;
  finish(status);
  compress_next();
  return true;
}

void rotated_files::finish(int status) {
  const std::string plain = file(compressing_);
  const std::string half = half_compressed(compressing_);
  const bool is_kept = std::any_of(files_.begin(), files_.end(), [this](const rotated_file& one) {
    return one.moment == compressing_;
  });
  struct stat old {};
  if (status == 0 && is_kept && ::stat(plain.c_str(), &old) == 0) {
    const timespec times[] = {old.st_atim, old.st_mtim};
    ::utimensat(AT_FDCWD, half.c_str(), times, 0);
    if (std::rename(half.c_str(), compressed(compressing_).c_str()) == 0) {
      ::unlink(plain.c_str());
      return;
    }
  }
  ::unlink(half.c_str());
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNoGzip) {
    compress_ = false;
    messages_.add("rotated files are not compressed: there is no gzip");
  } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
    messages_.add("cannot compress " + plain + ": gzip ends with " +
                  std::to_string(WEXITSTATUS(status)));
  }
}

void rotated_files::stop_compressor() {
  if (compressor_ == 0) return;
  ::kill(compressor_, SIGKILL);
  while (::waitpid(compressor_, nullptr, 0) < 0 && errno == EINTR) {
  }
  ::unlink(half_compressed(compressing_).c_str());
  compressor_ = 0;
}

std::string rotated_files::file(std::int64_t moment) const {
  return rotated_path(path_, {moment, rotated_name::kind::plain});
}

std::string rotated_files::half_compressed(std::int64_t moment) const {
  return rotated_path(path_, {moment, rotated_name::kind::half_compressed});
}

std::string rotated_files::compressed(std::int64_t moment) const {
  return rotated_path(path_, {moment, rotated_name::kind::compressed});
}

}  // namespace runner
