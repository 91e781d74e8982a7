#include "control/site/site.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "control/text/failure.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"

TEST(site, is_the_directory_that_is_given_or_that_of_the_environment_or_the_current_one) {
  in_child([] {
    const scratch_dir given;
    const scratch_dir named;
    const scratch_dir current;
    const std::string here = std::filesystem::canonical(current.path());
    std::filesystem::current_path(current.path());
    ::unsetenv("KEELMOND_DIR");
    EXPECT_EQ(control::enter_site("").directory, here);
    ::setenv("KEELMOND_DIR", named.path().c_str(), 1);
    EXPECT_EQ(control::enter_site("").directory, std::filesystem::canonical(named.path()));
    EXPECT_EQ(control::enter_site(given.path()).directory,
              std::filesystem::canonical(given.path()));
    EXPECT_EQ(std::filesystem::current_path(), std::filesystem::canonical(given.path()));
    EXPECT_THROW(control::enter_site("/nonexistent"), control::failure);
    std::filesystem::current_path("/");
  });
}
