#include "control/commands/program_text.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "control/text/failure.h"
#include "runner/file/program_file.h"
#include "tests/support/scratch_dir.h"

using control::program_text;
using control::program_text_options;

namespace {

std::string text_of(const program_text_options& options) {
  return program_text(options, "/usr/bin/keelmond-run", "/srv/kmd_web");
}

}  // namespace

TEST(program_text, says_what_was_asked_for_and_no_more) {
  EXPECT_EQ(text_of({.command = {"sleep", "5"}}),
            "#!/usr/bin/keelmond-run\n[program]\ncommand = sleep 5\n");
  EXPECT_EQ(text_of({.command = {"redis-server", "--save", "3600 1"},
                     .directory = "/srv",
                     .user = "0",
                     .environment = {"A=1", "LONG=x = y"},
                     .log = "/var/log/web.log"}),
            "#!/usr/bin/keelmond-run\n[program]\ncommand = redis-server --save '3600 1'\n"
            "directory = /srv\nuser = 0\n\n[environment]\nA=1\nLONG=x = y\n\n[log]\n"
            "file = /var/log/web.log\n");
}

TEST(program_text, gives_back_every_word_of_a_command) {
  std::mt19937 random(4711);
  const std::string letters = "ab \t'\"\\$`#;&|<>()*?~=%[]{}!\xc3\xa4";
  for (int round = 0; round < 2000; ++round) {
    program_text_options options{.command = {"x"}};
    for (std::size_t words = random() % 4; words > 0; --words) {
      std::string word;
      for (std::size_t length = random() % 6; length > 0; --length)
        word += letters[random() % letters.size()];
      options.command.push_back(word);
    }
    const auto read = runner::read_program_text(text_of(options), "/srv/kmd_web");
    ASSERT_EQ(read.settings.program.command, options.command) << text_of(options);
  }
}

TEST(program_text, refuses_what_a_program_file_cannot_say) {
  EXPECT_THROW(text_of({.command = {"echo", "a\nb"}}), control::failure);
  EXPECT_THROW(text_of({.command = {"x"}, .user = "nobody of that name"}), control::failure);
  EXPECT_THROW(text_of({.command = {"x"}, .environment = {"A"}}), control::failure);
  EXPECT_THROW(text_of({.command = {"x"}, .environment = {"A=1\nB=2"}}), control::failure);
  EXPECT_THROW(text_of({.command = {"x"}, .environment = {"1=2"}}), control::failure);
}

TEST(program_text, is_written_where_nothing_is) {
  const scratch_dir place;
  control::write_new_executable(place.file("new"), "#!/bin/sh\n");
  EXPECT_EQ(place.read("new"), "#!/bin/sh\n");
  EXPECT_THROW(control::write_new_executable(place.file("new"), "other"), control::failure);
  EXPECT_EQ(place.read("new"), "#!/bin/sh\n");
}
