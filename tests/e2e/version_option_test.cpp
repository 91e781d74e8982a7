#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <set>
#include <string>

#include "tests/e2e/golden.h"
#include "tests/e2e/support/installation.h"

namespace {

constexpr char kBanner[] =
    "\n"
    "Tessaly Process Monitor\n"
    "Version: " KEELMOND_VERSION
    "\n"
    "https://keelmond.example/support\n"
    "Questions and suggestions are welcome at support@keelmond.example\n"
    "\n";

std::set<std::string> files_of(const installation& place) {
  std::set<std::string> files;
  for (const auto& item : std::filesystem::recursive_directory_iterator(place.site()))
    files.insert(item.path().string());
  return files;
}

void expect_banner_only(const std::vector<std::string>& arguments) {
  SCOPED_TRACE(testing::PrintToString(arguments));
  installation place;
  const auto before = files_of(place);
  EXPECT_EQ(place.run({.arguments = arguments}), 0);
  EXPECT_EQ(place.console(), std::string(golden::kFirstLine) + kBanner);
  EXPECT_EQ(place.errors(), "");
  EXPECT_EQ(files_of(place), before);
  EXPECT_TRUE(place.processes().empty());
}

void expect_ordinary_start(const std::vector<std::string>& arguments) {
  SCOPED_TRACE(testing::PrintToString(arguments));
  installation place;
  place.start({.arguments = arguments});
  EXPECT_EQ(place.console(), golden::console_start(place) + golden::kLoad);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
}

}  // namespace

TEST(version_option, prints_the_banner_and_touches_nothing) {
  for (const char* word :
       {"v", "-v", "--v", "ver", "-ver", "--ver", "version", "-version", "--version"}) {
    expect_banner_only({word});
  }
}

TEST(version_option, counts_with_other_arguments_behind_it) {
  expect_banner_only({"--version", "config/other.ini"});
}

TEST(version_option, prints_the_banner_beside_a_running_daemon_too) {
  installation place;
  place.start();
  const std::string log = place.log();
  EXPECT_EQ(place.run({.arguments = {"-v"}}), 0);
  EXPECT_TRUE(place.console().ends_with(std::string(golden::kFirstLine) + kBanner));
  EXPECT_EQ(place.log(), log);
}

TEST(version_option, starts_as_ever_for_any_other_word) {
  for (const char* word : {"-V", "--Version", "VERSION", "-vv", "vers", "", "--help"})
    expect_ordinary_start({word});
}

TEST(version_option, counts_only_as_the_first_argument) {
  expect_ordinary_start({"server.ini", "--version"});
}
