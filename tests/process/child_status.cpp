#include "tests/process/child_status.h"

#include <cstddef>

#include "tests/support/fault.h"
#include "tests/support/scratch_dir.h"

std::uint64_t signals_in(const std::string& status, const std::string& field) {
  const std::size_t at = status.find("\n" + field + ":");
  if (at == std::string::npos) return ~std::uint64_t{0};
  return std::stoull(status.substr(at + field.size() + 2), nullptr, 16);
}

std::uint64_t bit(int sig) {
  return std::uint64_t{1} << (sig - 1);
}

void note_status_instead_of_a_shell() {
  faults.execv = [](const char*, char* const*) {
    write_file("status", read_file("/proc/self/status"));
    return -1;
  };
}
