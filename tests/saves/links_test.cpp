#include <gtest/gtest.h>

#include <string>

#include "tests/saves/support/saving.h"

using saving::by_shell;
using saving::way;

namespace {

/// server.ini is a link to a file of another directory.
constexpr char kFileLink[] =
    "mkdir versions; mv config/server.ini versions/$NEW; ln -s ../versions/$NEW config/server.ini";
/// server.ini is a link, and so is a directory on the way to the file.
constexpr char kDirectoryLink[] =
    "mkdir -p releases/$NEW; mv config/server.ini releases/$NEW; ln -s releases/$NEW current; "
    "ln -s ../current/server.ini config/server.ini";
/// config itself is a link to a directory.
constexpr char kConfigLink[] = "mv config config-$NEW; ln -s config-$NEW config";
/// A link to a link to a link, one of them with an absolute path.
constexpr char kChain[] =
    "mkdir versions; mv config/server.ini versions/$NEW; ln -s $NEW versions/now; "
    "ln -s \"$PWD/versions/now\" config/chosen; ln -s chosen config/server.ini";

constexpr char kNewVersion[] = "cp $WHOLE versions/$NEW; ";
constexpr char kNewRelease[] = "mkdir releases/$NEW; cp $WHOLE releases/$NEW; ";
constexpr char kNewConfig[] = "mkdir config-$NEW; cp $WHOLE config-$NEW; ";

way linked(const std::string& name, const std::string& layout, const std::string& commands,
           const std::string& program = "ln") {
  return by_shell(name, program, commands, layout);
}

class links : public testing::TestWithParam<way> {};

}  // namespace

TEST_P(links, are_followed) {
  saving::expect_all_taken(GetParam());
}

// To another file, while the old one stays as it is.
INSTANTIATE_TEST_SUITE_P(
    that_are_replaced, links,
    testing::Values(
        linked("by_ln", kFileLink,
               std::string(kNewVersion) + "ln -sfn ../versions/$NEW config/server.ini"),
        linked("by_mv", kFileLink,
               std::string(kNewVersion) +
                   "ln -s ../versions/$NEW config/next; mv -T config/next config/server.ini"),
        linked("by_rm_and_ln", kFileLink,
               std::string(kNewVersion) +
                   "rm config/server.ini; ln -s ../versions/$NEW config/server.ini"),
        linked("from_a_file", "mkdir versions",
               std::string(kNewVersion) + "ln -sf ../versions/$NEW config/server.ini"),
        linked("of_a_directory_by_ln", kDirectoryLink,
               std::string(kNewRelease) + "ln -sfn releases/$NEW current"),
        linked("of_a_directory_by_mv", kDirectoryLink,
               std::string(kNewRelease) + "ln -s releases/$NEW next; mv -T next current"),
        linked("of_a_directory_whose_old_one_goes", kDirectoryLink,
               std::string(kNewRelease) + "ln -sfn releases/$NEW current; rm -r releases/$OLD"),
        linked("config_by_ln", kConfigLink, std::string(kNewConfig) + "ln -sfn config-$NEW config"),
        linked("config_by_mv", kConfigLink,
               std::string(kNewConfig) + "ln -s config-$NEW next; mv -T next config"),
        linked("config_itself", "",
               std::string(kNewConfig) + "mv config config-$OLD; mv config-$NEW config", "mv"),
        linked("at_the_end_of_a_chain", kChain,
               std::string(kNewVersion) + "ln -sfn $NEW versions/now"),
        linked("in_the_middle_of_a_chain", kChain,
               std::string(kNewVersion) + "ln -sfn ../versions/$NEW config/chosen")),
    saving::by_name{});

// The file at the end of the links is saved, by its own name or by the link's.
INSTANTIATE_TEST_SUITE_P(
    whose_file_is_saved, links,
    testing::Values(linked("in_place", kDirectoryLink, "cp $WHOLE config/server.ini"),
                    linked("by_rename", kDirectoryLink, "mv $WHOLE current/server.ini"),
                    linked("by_sed", kDirectoryLink,
                           "sed -i --follow-symlinks s/$OLD/$NEW/ config/server.ini"),
                    linked("with_a_backup", kDirectoryLink, "mv -b $WHOLE current/server.ini"),
                    linked("by_rm_and_cp", kDirectoryLink,
                           "rm current/server.ini; cp $WHOLE current/server.ini"),
                    linked("at_the_end_of_a_chain", kChain,
                           "cp $WHOLE versions/next; "
                           "mv versions/next \"$(readlink -f config/server.ini)\"")),
    saving::by_name{});
