#include "tests/e2e/support/supervisor_binary.h"

#include <cstdlib>

namespace {

constexpr char kVariable[] = "KEELMOND_BINARY";

}  // namespace

std::string supervisor_binary() {
  return is_other_supervisor_binary() ? std::getenv(kVariable) : KEELMOND_BINARY;
}

bool is_other_supervisor_binary() {
  return std::getenv(kVariable) != nullptr;
}
