#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/e2e/runner/program_files.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

using runner::program_phase;

namespace {

/// A file with something wrong in it, and what is told of it behind the file's path, where % stands
/// for the directory.
struct wrong_file {
  const char* text;
  const char* told;
};

constexpr wrong_file kWrong[] = {
    {"command = sleep 1000\nuser = no_such_user\n",
     ":4: user: no user is called \"no_such_user\"; write the name or number of a user"},
    {"command = sleep 1000\ngroup = no_such_group\n",
     ":4: group: no group is called \"no_such_group\"; write the name or number of a group"},
    {"command = sleep 1000\ndirectory = /nonexistent\n",
     ":4: directory: cannot enter /nonexistent: No such file or directory"},
    {"command = sleep 1000\ndirectory = below\n",
     ":4: directory: cannot enter %/below: No such file or directory"},
    {"command = /nonexistent/thing -x\n",
     ":3: command: cannot execute /nonexistent/thing: No such file or directory"},
    {"command = no_such_command_here\n[environment]\nPATH = /usr/bin:/bin\n",
     ":3: command: cannot execute no_such_command_here: No such file or directory"},
    {"command = %/plain\n", ":3: command: cannot execute %/plain: Permission denied"},
    {"command = sleep 1000\nbefore = /nonexistent/first\n",
     ":4: before: cannot execute /nonexistent/first: No such file or directory"},
    {"command = sleep 1000\n[environment]\nfile = variables\n",
     ":5: file: cannot read %/variables: No such file or directory; name a file with lines "
     "NAME=value"},
    {"command = sleep 1000\ncolour = red\n",
     ":4: colour: [program] has no such key; its keys are "},
    {"command = echo 'one\n", ":3: command: the quote ' is not closed"},
    {"command = sleep 1000\n[stop]\ntimeout = 10 parsecs\n",
     ":5: timeout: \"10 parsecs\" cannot be understood; write a duration such as "},
    {"command = sleep 1000\n[colours]\n", ":4: there is no section \"colours\"; "},
};

std::string with_directory(std::string text, const std::string& directory) {
  for (std::size_t at; (at = text.find('%')) != std::string::npos;)
    text.replace(at, 1, directory);
  return text;
}

}  // namespace

TEST(runner_errors, each_is_told_with_file_line_and_key_on_standard_error_and_in_the_log) {
  runner_place place;
  const std::string directory = (place.site().site() / "programs").string();
  write_file(place.path_of("plain"), "#!/bin/sh\n");
  std::vector<std::string> names;
  for (const wrong_file& one : kWrong) {
    std::string text = "[program]\n" + with_directory(one.text, directory);
    text.append("[log]\nfile = log.").append(std::to_string(names.size())).append("\n");
    names.push_back(place.add(text));
  }
  place.start();
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string told = place.path_of(names[i]) + with_directory(kWrong[i].told, directory);
    const auto state = place.wait_phase(names[i], program_phase::waiting);
    EXPECT_TRUE(state.status.starts_with(told)) << state.status;
    const std::string line = "keelmond-run: " + state.status + "\n";
    EXPECT_TRUE(place.tells(line)) << line;
    const std::string log = "log." + std::to_string(i);
    EXPECT_TRUE(wait_until([&] { return contains(place.read(log), line); })) << place.read(log);
  }
}

TEST(runner_errors, a_log_that_cannot_be_written_is_told_on_standard_error) {
  runner_place place;
  const std::string output =
      place.add("[program]\ncommand = sleep 1000\n[log]\nfile = /nonexistent/log\n");
  const std::string errors = place.add(
      "[program]\ncommand = sleep 1000\n[log]\nfile = here.log\nstderr = /nonexistent/err\n");
  place.start();
  for (const auto& name : {output, errors})
    place.wait_phase(name, program_phase::waiting);
  const std::string rest = ": No such file or directory; name a file ";
  EXPECT_TRUE(place.tells(place.path_of(output) + ":5: file: cannot open /nonexistent/log" + rest));
  EXPECT_TRUE(
      place.tells(place.path_of(errors) + ":6: stderr: cannot open /nonexistent/err" + rest));
}

TEST(runner_errors, nothing_is_started_and_the_file_is_read_again_after_a_pause) {
  runner_place place;
  const std::string name = place.add(shell_text("echo x > started; exec sleep 1000",
                                                "directory = later\n[restart]\ndelay = 5ms\n"));
  place.start();
  ASSERT_TRUE(wait_until([&] {
    const auto state = place.state(name);
    return state && state->attempt >= 3;
  }));
  fs::create_directory(place.path_of("later"));
  place.wait_phase(name, program_phase::running);
  EXPECT_EQ(place.wait_text("later/started", "x\n"), "x\n");
}
