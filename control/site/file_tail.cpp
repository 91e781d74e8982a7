#include "control/site/file_tail.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace control {

void file_tail::open(bool at_end) {
  file_.reset(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  if (file_.valid() && at_end) ::lseek(file_.get(), 0, SEEK_END);
}

bool file_tail::is_replaced() const {
  struct stat named {};
  struct stat held {};
  if (::stat(path_.c_str(), &named) != 0) return false;
  if (!file_.valid() || ::fstat(file_.get(), &held) != 0) return true;
  // Whoever writes goes on with the file that is open. The new one is taken when it is used.
  return (named.st_dev != held.st_dev || named.st_ino != held.st_ino) && named.st_size > 0;
}

void file_tail::read_on(const reader& take) {
  if (!file_.valid()) return;
  struct stat status {};
  const off_t at = ::lseek(file_.get(), 0, SEEK_CUR);
  if (::fstat(file_.get(), &status) == 0 && status.st_size < at) ::lseek(file_.get(), 0, SEEK_SET);
  char chunk[16384];
  for (ssize_t got; (got = ::read(file_.get(), chunk, sizeof chunk)) > 0;)
    take({chunk, static_cast<std::size_t>(got)});
}

}  // namespace control
