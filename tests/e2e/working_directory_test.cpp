#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tests/e2e/golden.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace {

constexpr char kRefused[] =
    "keelmond: cannot work in this directory: it is gone, or its path is longer than 247 bytes. "
    "Nothing was started.\n";

/// The name of a working directory with which its path has `length` bytes.
std::string name_for(std::size_t length) {
  const scratch_dir another;
  return std::string(length - another.path().string().size() - 1, 'd');
}

/// Runs an installation with one program up and down.
void expect_whole_life(installation& place, const std::string& shown_log_path) {
  const std::string name = place.add_steady();
  place.start_with(name);
  EXPECT_TRUE(wait_until([&] { return place.is_live(name); }));
  expect_console(place, std::string(golden::kFirstLine) + golden::kSecondLine + shown_log_path +
                            golden::kLoad + golden::started(name));
  EXPECT_TRUE(place.has("run.pid"));
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_FALSE(place.has("run.pid"));
  EXPECT_EQ(with_times_and_pids_masked(place.log()),
            std::string(golden::kLogStart) + golden::kLaunched + golden::kExited + golden::kClosed);
}

void expect_refused(installation& place, const start_options& options) {
  EXPECT_EQ(place.run(options), 0);
  EXPECT_TRUE(place.processes().empty());
  EXPECT_EQ(place.console(), std::string(golden::kFirstLine) + golden::kSecondLine);
  EXPECT_EQ(place.errors(), kRefused);
  EXPECT_EQ(place.log(), "");
  EXPECT_FALSE(place.has("keelmond.log"));
  EXPECT_FALSE(place.has("run.pid"));
}

}  // namespace

TEST(working_directory, prints_a_doubled_percent_sign_once) {
  installation place("100%%x");
  const std::string parent = place.site().parent_path().string();
  expect_whole_life(place, parent + "/100%x/keelmond.log");
}

TEST(working_directory, prints_a_conversion_as_it_is) {
  installation place("%s%n%5d%");
  expect_whole_life(place, (place.site() / "keelmond.log").string());
}

TEST(working_directory, may_have_blanks_and_shell_characters) {
  installation place("a b $(c) 'd' \"e\";f");
  const std::string log_path = (place.site() / "keelmond.log").string();
  place.start();
  expect_console(place,
                 std::string(golden::kFirstLine) + golden::kSecondLine + log_path + golden::kLoad);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_FALSE(place.has("run.pid"));
}

TEST(working_directory, may_have_a_path_of_247_bytes) {
  installation place(name_for(247));
  ASSERT_EQ(place.site().string().size(), 247U);
  expect_whole_life(place, (place.site() / "keelmond.log").string());
}

TEST(working_directory, is_refused_when_its_path_is_longer) {
  installation place(name_for(248));
  ASSERT_EQ(place.site().string().size(), 248U);
  expect_refused(place, {});
}

TEST(working_directory, is_refused_when_it_is_gone) {
  installation place;
  expect_refused(
      place, {.before_exec = [] {
        if (::mkdir("gone", 0700) != 0 || ::chdir("gone") != 0 || ::rmdir("../gone") != 0) {
          ::_exit(123);
        }
      }});
}
