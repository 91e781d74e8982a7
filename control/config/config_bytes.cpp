#include "control/config/config_bytes.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>

#include "common/misc/small_file.h"
#include "common/misc/unique_fd.h"
#include "control/text/failure.h"

namespace control {
std::optional<config_bytes> read_config(const std::string& path) {
  const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  config_bytes config;
  if (!file.valid() || ::fstat(file.get(), &config.status) != 0) return {};
  if (!S_ISREG(config.status.st_mode)) {
    errno = EINVAL;
    return {};
  }
  if (!read_to_end(file.get(), config.text)) return {};
  return config;
}

Tini_parser parse_config(std::string_view text) {
  const unique_fd copy(::memfd_create("server.ini", MFD_CLOEXEC));
  if (!copy.valid() || !write_whole(copy.get(), text)) {
    throw failure("there is no memory to read the configuration into");
  }
  return Tini_parser("/proc/self/fd/" + std::to_string(copy.get()));
}

}  // namespace control
