#include "runner/file/text_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "common/misc/small_file.h"
#include "common/misc/unique_fd.h"

namespace runner {

std::string read_text_file(const std::string& path, const std::string& name, std::size_t most,
                           std::string& out) {
  const auto unreadable = [&] { return "cannot read " + name + ": " + std::strerror(errno); };
  out.clear();
  const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file.valid() || ::fstat(file.get(), &status) != 0) return unreadable();
  if (!S_ISREG(status.st_mode)) return name + " is no file";
  if (read_to_end(file.get(), out, most)) return "";
  if (errno != EFBIG) return unreadable();
  constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;
  return name + " is larger than " + std::to_string(most / kMebibyte) + "M";
}

}  // namespace runner
