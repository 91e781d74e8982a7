#include "runner/supervise/mark.h"

#include <fcntl.h>
#include <sys/random.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "common/misc/small_file.h"

namespace runner {
namespace {

/// The beginning of what the kernel calls this start of the machine; zeros where it does not say.
std::string read_boot() {
  constexpr std::size_t kLength = 8;
  std::string text;
  if (!read_small_file(AT_FDCWD, "/proc/sys/kernel/random/boot_id", text) || text.size() < kLength)
    return std::string(kLength, '0');
  return text.substr(0, kLength);
}

}  // namespace

std::string make_mark() {
  std::uint64_t number = 0;
  if (::getrandom(&number, sizeof number, GRND_NONBLOCK) != sizeof number) {
    // So early that there is nothing random yet.
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    number = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
             static_cast<std::uint64_t>(now.tv_nsec);
  }
  char text[17];
  std::snprintf(text, sizeof text, "%016jx", static_cast<std::uintmax_t>(number));
  return read_boot() + "-" + text;
}

bool is_of_this_boot(std::string_view mark) {
  return mark.empty() || mark.starts_with(read_boot());
}

std::string read_mark(pid_t pid) {
  std::string variables;
  if (!read_small_file(AT_FDCWD, ("/proc/" + std::to_string(pid) + "/environ").c_str(), variables))
    return "";
  const std::string wanted = std::string(kMarkVariable) + "=";
  for (std::size_t at = 0; at < variables.size();) {
    const std::size_t end = std::min(variables.find('\0', at), variables.size());
    const std::string_view one = std::string_view(variables).substr(at, end - at);
    if (one.starts_with(wanted)) return std::string(one.substr(wanted.size()));
    at = end + 1;
  }
  return "";
}

}  // namespace runner
