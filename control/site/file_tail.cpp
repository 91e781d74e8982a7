#include "control/site/file_tail.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace control {
namespace {

/// No file system has smaller blocks.
constexpr off_t kBlock = 512;
/// What a place in the file is known by again.
constexpr std::size_t kRemembered = 512;

/// At most so many of the bytes in front of a place, or fewer where the file has been cut.
std::string bytes_before(int fd, off_t place, std::size_t bytes) {
  std::string text(std::min(bytes, static_cast<std::size_t>(place)), '\0');
  const ssize_t got = ::pread(fd, text.data(), text.size(), place - std::ssize(text));
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  return text;
}

}  // namespace

void file_tail::open(bool at_end) {
  file_.reset(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  last_.clear();
  if (!file_.valid() || !at_end) return;
  last_ = bytes_before(file_.get(), ::lseek(file_.get(), 0, SEEK_END), kRemembered);
}

bool file_tail::is_replaced() const {
  struct stat named {};
  struct stat held {};
  if (::stat(path_.c_str(), &named) != 0) return false;
  if (!file_.valid() || ::fstat(file_.get(), &held) != 0) return true;
  // Whoever writes goes on with the file that is open. The new one is taken when it is used.
  return (named.st_dev != held.st_dev || named.st_ino != held.st_ino) && named.st_size > 0;
}

/// Goes to the place behind what was read, where the file is no longer as it was: to its beginning
/// when it was emptied, and further on when only whole blocks were taken out of its front.
void file_tail::find_place() {
  const off_t at = ::lseek(file_.get(), 0, SEEK_CUR);
  if (bytes_before(file_.get(), at, last_.size()) == last_) return;
  struct stat status {};
  ::fstat(file_.get(), &status);
  // The last such place first: the nearer to the beginning, the less there is to compare.
  off_t place = at - kBlock;
  for (; place > 0; place -= kBlock) {
    if (place > status.st_size) continue;
    const std::string before = bytes_before(file_.get(), place, last_.size());
    if (!before.empty() && last_.ends_with(before)) break;
  }
  ::lseek(file_.get(), std::max<off_t>(place, 0), SEEK_SET);
}

void file_tail::read_on(const reader& take) {
  if (!file_.valid()) return;
  find_place();
  char chunk[16384];
  for (ssize_t got; (got = ::read(file_.get(), chunk, sizeof chunk)) > 0;)
    take({chunk, static_cast<std::size_t>(got)});
  last_ = bytes_before(file_.get(), ::lseek(file_.get(), 0, SEEK_CUR), kRemembered);
}

}  // namespace control
