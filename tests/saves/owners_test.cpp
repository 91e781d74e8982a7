#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/saves/support/saving.h"

using saving::way;

namespace {

/// A save by root of a file that belongs to the supervisor's user, as it has to.
way by_root(const std::string& name, const std::string& program, const std::string& commands) {
  way how = saving::by_shell(name, program, commands);
  how.for_other_user = true;
  return how;
}

class owners : public testing::TestWithParam<way> {};

}  // namespace

TEST_P(owners, are_kept_by_what_root_saves_with) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root saves files of other users";
  saving::expect_all_taken(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    of_the_file, owners,
    testing::Values(
        by_root("cp_and_mv", "cp",
                "cp -p config/server.ini config/server.ini.new; "
                "sed -i s/$OLD/$NEW/ config/server.ini.new; "
                "mv config/server.ini.new config/server.ini"),
        by_root("install", "install",
                "install -o $OWNER -g $OWNER -m 600 $WHOLE config/server.ini"),
        by_root("cp", "cp", "cp $WHOLE config/server.ini"),
        by_root("sed", "sed", "sed -i s/$OLD/$NEW/ config/server.ini"),
        by_root("perl", "perl", "perl -i -pe s/$OLD/$NEW/ config/server.ini"),
        by_root("crudini", "crudini", "crudini --set config/server.ini keelmond svr2 $NEW"),
        by_root("patch", "patch",
                "diff -u config/server.ini $WHOLE >change || true; "
                "patch -s config/server.ini change"),
        by_root("vim", "vim", "vim -es +%s/$OLD/$NEW/ +wq config/server.ini"),
        by_root("emacs", "emacs",
                "emacs -batch config/server.ini 2>messages "
                "--eval '(replace-string (getenv \"OLD\") (getenv \"NEW\"))' -f save-buffer"),
        by_root("rsync_with_owner", "rsync",
                "chown $OWNER $WHOLE; rsync -co $WHOLE config/server.ini")),
    saving::by_name{});
