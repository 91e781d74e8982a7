#include "runner/launch/environment.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using runner::build_environment;
using runner::program_file;

namespace {

using texts = std::vector<std::string>;

constexpr const char* kInherited[] = {"PATH=/bin", "A=1", "NOTIFY_SOCKET=/x", "LISTEN_FDS=1",
                                      nullptr};

}  // namespace

TEST(environment, what_concerns_the_launcher_is_not_handed_on) {
  EXPECT_EQ(build_environment({}, kInherited), (texts{"PATH=/bin", "A=1"}));
}

TEST(environment, the_file_wins_over_what_is_inherited_and_more_over_both) {
  program_file file;
  file.environment.variables = {{"A", "2"}, {"B", "3"}, {"B", "4"}};
  EXPECT_EQ(build_environment(file, kInherited, {{"B", "5"}, {"NOTIFY_SOCKET", "@y"}}),
            (texts{"PATH=/bin", "A=2", "B=5", "NOTIFY_SOCKET=@y"}));
}

TEST(environment, a_clean_one_has_a_path_and_nothing_else) {
  program_file file;
  file.environment.clean = true;
  EXPECT_EQ(build_environment(file, kInherited),
            texts{"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"});
}

TEST(environment, another_user_has_a_home_of_his_own) {
  program_file file;
  file.program.who = {104, 112, {}, "redis", "/var/lib/redis", ""};
  EXPECT_EQ(build_environment(file, kInherited),
            (texts{"PATH=/bin", "A=1", "USER=redis", "LOGNAME=redis", "HOME=/var/lib/redis",
                   "SHELL=/bin/sh"}));
}

TEST(environment, a_user_without_a_name_has_not_that_of_another) {
  constexpr const char* kOfRoot[] = {"HOME=/root", "PATH=/bin",    "USER=root", "SHELL=/bin/bash",
                                     "A=1",        "LOGNAME=root", nullptr};
  program_file file;
  file.program.who.uid = 4711;
  file.program.who.gid = 4711;
  EXPECT_EQ(build_environment(file, kOfRoot), (texts{"PATH=/bin", "A=1"}));
  file.environment.variables = {{"HOME", "/srv/shop"}};
  EXPECT_EQ(build_environment(file, kOfRoot), (texts{"PATH=/bin", "A=1", "HOME=/srv/shop"}));
  file.program.who.uid.reset();
  EXPECT_EQ(build_environment(file, kOfRoot).size(), 6U);
}

TEST(environment, names_are_compared_whole) {
  EXPECT_EQ(runner::variable_of({"AB=1", "A=2"}, "A"), "2");
  EXPECT_EQ(runner::variable_of({"AB=1"}, "A"), "");
}
