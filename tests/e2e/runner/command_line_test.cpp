#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/scratch_dir.h"
#include "tests/support/text.h"

namespace fs = std::filesystem;

namespace {

/// What keelmond-run has done with arguments that start nothing.
struct answer {
  int status = -1;
  std::string output;
  std::string errors;
};

class runner_command_line : public testing::Test {
 protected:
  [[nodiscard]] answer ask(const std::string& arguments) const {
    const std::string command = "cd " + here_.path().string() + " && timeout 60 " +
                                KEELMOND_RUN_BINARY " " + arguments + " >out 2>err </dev/null";
    const int status = std::system(command.c_str());
    return {WEXITSTATUS(status), here_.read("out"), here_.read("err")};
  }
  /// Saves a program file as "kmd_x".
  void write(const std::string& text) const { here_.write("kmd_x", text); }

  scratch_dir here_;
};

const std::string kHead = "#!/usr/bin/keelmond-run\n[program]\ncommand = touch started\n";

}  // namespace

TEST_F(runner_command_line, check_says_nothing_of_a_file_that_is_right) {
  write(kHead + "before = touch before\n[on]\nfailure = touch hook\n");
  const answer done = ask("--check kmd_x");
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output + done.errors, "");
  for (const char* const file : {"started", "before", "hook"})
    EXPECT_FALSE(here_.has(file)) << file;
}

TEST_F(runner_command_line, check_says_all_that_is_wrong_with_file_line_key_and_remedy) {
  write(kHead + "nice = 40\ncolour = red\n[limits]\nnofile = many\n");
  for (const std::string& name :
       {std::string("kmd_x"), std::string("./kmd_x"), here_.file("kmd_x")}) {
    const answer done = ask("--check " + name);
    EXPECT_EQ(done.status, 1);
    EXPECT_EQ(done.output, "");
    const auto lines = lines_of(done.errors);
    ASSERT_EQ(lines.size(), 3U) << done.errors;
    EXPECT_EQ(lines[0],
              name + ":4: nice: \"40\" cannot be understood; write a number from -20 to 19");
    EXPECT_TRUE(lines[1].starts_with(
        name + ":5: colour: [program] has no such key; its keys are command, "));
    EXPECT_TRUE(lines[2].starts_with(name + ":7: nofile: \"many\" cannot be understood; write "));
  }
}

TEST_F(runner_command_line, check_says_why_a_file_cannot_be_read) {
  EXPECT_EQ(ask("--check missing").status, 1);
  EXPECT_EQ(ask("--check missing").errors, "missing: cannot read it: No such file or directory\n");
  EXPECT_EQ(ask("--check .").status, 1);
  EXPECT_EQ(ask("--check .").errors, ".: it is no file; name a program file\n");
}

TEST_F(runner_command_line, explain_shows_every_key_and_what_is_so_without_it) {
  write(kHead + "umask = 077\n[environment]\nA=1\n[ready]\ntcp = 80\n");
  const answer done = ask("--explain kmd_x");
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.errors, "");
  for (const char* const line : {"\n[program]\n",
                                 "\ncommand = touch started\n",
                                 "\numask = 077\n",
                                 "\n# shell = no\n",
                                 "\n# user: (the supervisor's)\n",
                                 "\n[environment]\n",
                                 "\nA = 1\n",
                                 "\n[limits]\n",
                                 "\n# memory: (none)\n",
                                 "\n[log]\n",
                                 "\n# size = 10M\n",
                                 "\n[stop]\n",
                                 "\n# signal = TERM\n",
                                 "\n# timeout = 10s\n",
                                 "\n[restart]\n",
                                 "\n# delay = 0.2s\n",
                                 "\n# longest = 60s\n",
                                 "\n# on = always\n",
                                 "\n[ready]\n",
                                 "\ntcp = 80\n",
                                 "\n[health]\n",
                                 "\n# every = 30s\n",
                                 "\n[on]\n",
                                 "\n# give_up: (none)\n"})
    EXPECT_TRUE(contains("\n" + done.output, line)) << line << done.output;
  EXPECT_FALSE(here_.has("started"));
}

TEST_F(runner_command_line, explain_gives_a_file_that_says_the_same) {
  write(kHead +
        "user = 0\ngroup = 0\n[environment]\nLONG = a  b\n[limits]\nnofile = 5:6\n[log]\n"
        "file = x.log\nstamp = on\n");
  const std::string first = ask("--explain kmd_x").output;
  write(first);
  EXPECT_EQ(ask("--check kmd_x").errors, "");
  EXPECT_EQ(ask("--explain kmd_x").output, first);
}

TEST_F(runner_command_line, explain_says_what_is_wrong_and_shows_nothing) {
  write(kHead + "colour = red\n");
  const answer done = ask("--explain kmd_x");
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.output, "");
  EXPECT_EQ(done.errors, ask("--check kmd_x").errors);
}

TEST_F(runner_command_line, tells_its_version_and_how_it_is_used) {
  EXPECT_EQ(ask("--version").output, "keelmond-run " KEELMOND_VERSION "\n");
  EXPECT_EQ(ask("--version").status, 0);
  const answer help = ask("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.output.starts_with("usage: keelmond-run FILE "));
  for (const char* const wrong :
       {"", "''", "--colour", "a b", "--check", "--explain", "--check a b"}) {
    const answer done = ask(wrong);
    EXPECT_EQ(done.status, 2) << wrong;
    EXPECT_EQ(done.output, "") << wrong;
    EXPECT_EQ(done.errors, help.output) << wrong;
  }
}
