#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "tests/e2e/support/children.h"
#include "tests/e2e/support/ordinary_user.h"
#include "tests/e2e/support/private_namespace.h"

namespace {

/// Exit status by which CTest knows a test that was skipped.
constexpr int kSkipped = 77;

/// CMake asks for the names of the tests while it builds, where nothing has to be isolated.
bool only_lists(int argc, char** argv) {
  return std::any_of(argv, argv + argc, [](std::string_view argument) {
    return argument.starts_with("--gtest_list_tests");
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (!only_lists(argc, argv) && !private_namespace::is_inside()) {
    if (ordinary_user::is_wanted()) {
      const std::string obstacle = ordinary_user::become();
      if (!obstacle.empty()) {
        std::printf("Not run by an ordinary user: %s.\n", obstacle.c_str());
        return kSkipped;
      }
    }
    if (const auto status = private_namespace::run_again(argv)) return *status;
  }
  testing::InitGoogleTest(&argc, argv);
  children::adopt_orphans();
  return RUN_ALL_TESTS();
}
