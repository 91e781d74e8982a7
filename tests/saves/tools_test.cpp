#include <gtest/gtest.h>

#include <string>

#include "tests/saves/support/saving.h"

using saving::by_shell;
using saving::way;

namespace {

class tools : public testing::TestWithParam<way> {};

constexpr char kRepository[] =
    "git init -q && git add config/server.ini && "
    "git -c user.name=n -c user.email=n@localhost commit -q -m start";

}  // namespace

TEST_P(tools, are_all_seen) {
  saving::expect_all_taken(GetParam());
}

// In place, in one way or the other.
INSTANTIATE_TEST_SUITE_P(
    that_write, tools,
    testing::Values(
        by_shell("cp", "cp", "cp $WHOLE config/server.ini"),
        by_shell("tee", "tee", "tee config/server.ini <$WHOLE >/dev/null"),
        by_shell("shell_redirection", "sh", "cat $WHOLE >config/server.ini"),
        by_shell("shell_appending", "sh", "echo svr2=$NEW >>config/server.ini"),
        by_shell("dd", "dd", "dd if=$WHOLE of=config/server.ini status=none"),
        by_shell("dd_without_emptying", "dd",
                 "dd if=$WHOLE of=config/server.ini conv=notrunc status=none"),
        by_shell("python_open", "python3",
                 "python3 -c 'import sys; open(\"config/server.ini\", \"w\").write("
                 "open(sys.argv[1]).read())' $WHOLE"),
        by_shell("ed", "ed", "printf '%s\\n' \"%s/$OLD/$NEW/\" w q | ed -s config/server.ini"),
        by_shell("rsync_inplace", "rsync", "rsync -c --inplace $WHOLE config/server.ini")),
    saving::by_name{});

// A new file, moved to the name of the old one.
INSTANTIATE_TEST_SUITE_P(
    that_rename, tools,
    testing::Values(
        by_shell("mv", "mv", "mv $WHOLE config/server.ini"),
        by_shell("mv_from_beside", "mv",
                 "cp config/server.ini config/server.ini.new; "
                 "sed -i s/$OLD/$NEW/ config/server.ini.new; "
                 "mv config/server.ini.new config/server.ini"),
        by_shell("sed_in_place", "sed", "sed -i s/$OLD/$NEW/ config/server.ini"),
        by_shell("perl_in_place", "perl", "perl -i -pe s/$OLD/$NEW/ config/server.ini"),
        by_shell("python_replace", "python3",
                 "python3 -c 'import os, sys; os.replace(sys.argv[1], \"config/server.ini\")' "
                 "$WHOLE"),
        by_shell("rsync", "rsync", "rsync -c $WHOLE config/server.ini"),
        by_shell("crudini", "crudini", "crudini --set config/server.ini keelmond svr2 $NEW"),
        by_shell("patch", "patch",
                 "diff -u config/server.ini $WHOLE >change || true; "
                 "patch -s config/server.ini change")),
    saving::by_name{});

// A backup: the old file moves away, with the watch on it.
INSTANTIATE_TEST_SUITE_P(
    that_keep_a_backup, tools,
    testing::Values(
        by_shell("sed_with_backup", "sed", "sed -i.bak s/$OLD/$NEW/ config/server.ini"),
        by_shell("perl_with_backup", "perl", "perl -i.bak -pe s/$OLD/$NEW/ config/server.ini"),
        by_shell("mv_with_backup", "mv", "mv -b $WHOLE config/server.ini"),
        by_shell("cp_with_backup", "cp", "cp -b $WHOLE config/server.ini"),
        by_shell("install_with_backup", "install", "install -b -m 644 $WHOLE config/server.ini"),
        by_shell("ln_with_backup", "ln", "ln -b $WHOLE config/server.ini"),
        by_shell("rsync_with_backup", "rsync", "rsync -cb $WHOLE config/server.ini"),
        by_shell("patch_with_backup", "patch",
                 "diff -u config/server.ini $WHOLE >change || true; "
                 "patch -b -s config/server.ini change"),
        by_shell("mv_away_and_cp", "mv",
                 "mv config/server.ini config/server.ini.old; cp $WHOLE config/server.ini"),
        by_shell("mv_away_and_mv", "mv",
                 "mv config/server.ini config/server.ini.old; mv $WHOLE config/server.ini")),
    saving::by_name{});

// The old file is removed, and a new one made: there is none for a moment.
INSTANTIATE_TEST_SUITE_P(
    that_remove_first, tools,
    testing::Values(
        by_shell("git_checkout", "git",
                 "blob=$(git hash-object -w $WHOLE); "
                 "git update-index --cacheinfo 100644,$blob,config/server.ini; "
                 "git checkout -q -- config/server.ini",
                 kRepository),
        by_shell("install", "install", "install -m 644 $WHOLE config/server.ini"),
        by_shell("cp_unlinking", "cp", "cp --remove-destination $WHOLE config/server.ini"),
        by_shell("ln", "ln", "ln -f $WHOLE config/server.ini"),
        by_shell("tar", "tar",
                 "tar cf saved.tar -C ${WHOLE%/*} server.ini; tar xf saved.tar -C config"),
        by_shell("rm_and_cp", "rm", "rm config/server.ini; cp $WHOLE config/server.ini"),
        by_shell("cp_and_rm_and_cp", "rm",
                 "cp config/server.ini copy; cp copy config/server.ini; rm config/server.ini; "
                 "cp $WHOLE config/server.ini"),
        by_shell("rm_and_a_while_later_mv", "rm",
                 "rm config/server.ini; sleep 0.2; mv $WHOLE config/server.ini"),
        by_shell("mv_from_another_file_system", "mv",
                 "new=$(mktemp -p /dev/shm); cat $WHOLE >$new; mv -f $new config/server.ini")),
    saving::by_name{});
