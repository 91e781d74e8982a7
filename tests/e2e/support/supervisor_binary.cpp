#include "tests/e2e/support/supervisor_binary.h"

#include <cstdlib>

std::string supervisor_binary() {
  const char* other = std::getenv("KEELMOND_BINARY");
  return other != nullptr ? other : KEELMOND_BINARY;
}
