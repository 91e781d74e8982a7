#include "tests/e2e/support/ordinary_user.h"

#include <grp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "tests/e2e/support/supervisor_binary.h"

namespace ordinary_user {

bool is_wanted() {
  return std::getenv("KEELMOND_TEST_ORDINARY_USER") != nullptr;
}

uid_t id() {
  return 52000 + static_cast<uid_t>(::getpid() % 7000);
}

std::string become() {
  if (::geteuid() != 0) return "one runs all the other tests already";
  const uid_t user = id();
  if (::setgroups(0, nullptr) != 0 || ::setresgid(user, user, user) != 0 ||
      ::setresuid(user, user, user) != 0) {
    return "there is no other user here";
  }
  // Its files in /proc are the new user's, too.
  ::prctl(PR_SET_DUMPABLE, 1);
  const std::string binary = supervisor_binary();
  if (::access(binary.c_str(), X_OK) != 0) return binary + " is out of reach";
  const std::filesystem::path scratch = std::filesystem::temp_directory_path();
  if (::access(scratch.c_str(), W_OK | X_OK) != 0) return scratch.string() + " is out of reach";
  return "";
}

}  // namespace ordinary_user
