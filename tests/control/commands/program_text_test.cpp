#include "control/commands/program_text.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "control/text/failure.h"
#include "runner/file/program_file.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/text.h"

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

TEST(program_text, takes_any_key_and_puts_it_in_its_section) {
  EXPECT_EQ(text_of({.command = {"sleep", "5"},
                     .environment = {"A=1"},
                     .log = "web.log",
                     .settings = {"stop.timeout=30s", "program.nice=5", "environment.B=x = y",
                                  "log.size=1M", "stop.signal=INT"}}),
            "#!/usr/bin/keelmond-run\n[program]\ncommand = sleep 5\nnice = 5\n\n"
            "[environment]\nA=1\nB=x = y\n\n[log]\nfile = web.log\nsize = 1M\n\n"
            "[stop]\ntimeout = 30s\nsignal = INT\n");
  EXPECT_EQ(text_of({.settings = {"program.command=echo $HOME; exit", "program.shell=yes"}}),
            "#!/usr/bin/keelmond-run\n[program]\ncommand = echo $HOME; exit\nshell = yes\n");
}

TEST(program_text, refuses_keys_as_the_reader_of_the_file_does) {
  const auto refusal = [](const char* setting) -> std::string {
    try {
      return text_of({.command = {"x"}, .user = "0", .settings = {setting}});
    } catch (const control::failure& why) {
      return why.what();
    }
  };
  EXPECT_EQ(
      refusal("stop.timeout=soon"),
      "timeout: \"soon\" cannot be understood; write a duration such as 0.5, 500ms, 10s, 2m or "
      "1h, at most 100 years. Nothing was changed");
  EXPECT_TRUE(contains(refusal("stop.time=1s"), "time: [stop] has no such key; its keys are "));
  EXPECT_TRUE(contains(refusal("halt.timeout=1s"), "there is no section \"halt\"; "));
  EXPECT_TRUE(contains(refusal("program.user=1"), "user: it stands in line 4 already"));
  EXPECT_TRUE(contains(refusal("program.umask="), "umask: it has no value"));
  for (const char* const none : {"timeout=1s", "stop.=1s", ".timeout=1s", "stop.timeout", "a=b.c"})
    EXPECT_TRUE(contains(refusal(none), "--set takes SECTION.KEY=VALUE, and ")) << none;
  EXPECT_TRUE(contains(refusal("stop.timeout=1s\nsignal = INT"), "line break"));
  EXPECT_TRUE(contains(refusal("stop]\n[log.file=x"), "line break"));
  // Lines that would be headers and remarks.
  for (const char* const other : {"program.[log]=1", "program.#x=1", "program.;x=1"})
    EXPECT_FALSE(contains(refusal(other), "keelmond-run")) << refusal(other);
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
