#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "runner/log/rotated_name.h"
#include "tests/e2e/control/control_command.h"
#include "tests/e2e/runner/program_files.h"
#include "tests/support/wait_until.h"

namespace {

constexpr std::chrono::seconds kLimit{60};

/// A program that prints what a command of the shell does, and stays.
std::string add_printing(runner_place& place, const std::string& command, const std::string& log) {
  return place.add("[program]\nshell = yes\ncommand = " + command + "; exec sleep 1000\n[log]\n" +
                   log);
}

/// The last lines of logs, when they are as many as expected.
std::string shown(runner_place& place, std::vector<std::string> arguments, long lines) {
  arguments.insert(arguments.begin(), "logs");
  control_result result;
  wait_until(
      [&] {
        result = control(place.site(), arguments);
        return std::count(result.output.begin(), result.output.end(), '\n') == lines;
      },
      kLimit);
  EXPECT_EQ(result.status, 0) << result.errors;
  return result.output;
}

std::string numbered_lines(int first, int last) {
  std::string text;
  for (int i = first; i <= last; ++i)
    text += "line " + std::to_string(i) + "\n";
  return text;
}

/// The first line of `text` that is not that of `expected`; empty when they are the same.
std::string first_difference(const std::string& text, const std::string& expected) {
  const auto at = std::mismatch(text.begin(), text.end(), expected.begin(), expected.end()).first;
  if (at == text.end()) return text.size() == expected.size() ? "" : "it ends too early";
  const auto offset = static_cast<std::size_t>(at - text.begin());
  const std::size_t begin = text.rfind('\n', offset > 0 ? offset - 1 : 0);
  return text.substr(begin + 1, 20);
}

/// The output without the names of the logs and the times behind them.
std::string without_times(const std::string& output, std::size_t label) {
  constexpr std::size_t kStamp = 33;
  std::string text;
  for (std::size_t at = 0; at < output.size(); at = output.find('\n', at) + 1) {
    const std::size_t end = output.find('\n', at);
    text += output.substr(at, label) +
            output.substr(at + label + kStamp, end + 1 - at - label - kStamp);
  }
  return text;
}

}  // namespace

TEST(runner_logs, shows_the_last_lines_of_a_program) {
  runner_place place;
  const std::string name =
      add_printing(place, "for i in 1 2 3; do echo line $i; done", "file = x.log\n");
  place.start();
  EXPECT_EQ(shown(place, {name}, 3), numbered_lines(1, 3));
  EXPECT_EQ(shown(place, {name, "-n", "1"}, 1), "line 3\n");
  EXPECT_EQ(shown(place, {"--all", "-n", "2"}, 2), numbered_lines(2, 3));
}

TEST(runner_logs, merges_programs_by_the_times_of_their_lines) {
  runner_place place;
  const std::string first = add_printing(
      place, "echo one; until [ -e two ]; do sleep 0.01; done; echo three; touch three",
      "file = first.log\nstamp = yes\n");
  const std::string second =
      add_printing(place,
                   "until grep -qs one first.log; do sleep 0.01; done; echo two >&2; "
                   "until grep -qs two err.log; do sleep 0.01; done; touch two; "
                   "until grep -qs three first.log; do sleep 0.01; done; echo four",
                   "file = second.log\nstderr = err.log\nstamp = yes\n");
  place.start();
  const std::string output = shown(place, {first, second}, 4);
  const std::size_t width = second.size() + 7 + 2;
  const auto labelled = [width](std::string label, const std::string& text) {
    label.resize(width, ' ');
    return label + text + "\n";
  };
  EXPECT_EQ(without_times(output, width), labelled(first, "one") +
                                              labelled(second + "/stderr", "two") +
                                              labelled(first, "three") + labelled(second, "four"));
}

TEST(runner_logs, goes_back_across_rotated_and_compressed_files) {
  runner_place place;
  const std::string name =
      add_printing(place, "i=0; while [ $i -lt 500 ]; do i=$((i + 1)); echo line $i; done",
                   "file = x.log\nsize = 1000\nkeep = 1000\ncompress = yes\n");
  place.start();
  EXPECT_EQ(shown(place, {name, "-n", "1000"}, 500), numbered_lines(1, 500));
  EXPECT_EQ(shown(place, {name, "-n", "250"}, 250), numbered_lines(251, 500));
  EXPECT_GT(runner::find_rotated(place.path_of("x.log")).size(), 2U);
}

TEST(runner_logs, follows_across_rotation_under_load) {
  runner_place place;
  const std::string name =
      add_printing(place,
                   "echo line 1; until [ -e go ]; do sleep 0.01; done; i=1; "
                   "while [ $i -lt 3000 ]; do i=$((i + 1)); echo line $i; done",
                   "file = x.log\nsize = 2000\nkeep = 1000\ncompress = yes\n");
  place.start();
  const running_control logs(place.site(), {"logs", "-f", name});
  EXPECT_TRUE(wait_until([&] { return logs.output() == "line 1\n"; }, kLimit));
  place.site().write_executable(place.path_of("go"), "");
  EXPECT_TRUE(wait_until([&] { return logs.output().ends_with("line 3000\n"); }, kLimit));
  EXPECT_EQ(first_difference(logs.output(), numbered_lines(1, 3000)), "");
  EXPECT_EQ(first_difference(shown(place, {name, "-n", "9999"}, 3000), numbered_lines(1, 3000)),
            "");
  EXPECT_GT(runner::find_rotated(place.path_of("x.log")).size(), 2U);
}

TEST(runner_logs, says_where_to_look_for_what_is_in_no_file) {
  runner_place place;
  const std::string journal = add_printing(place, "true", "to = journal\n");
  const std::string syslog = add_printing(place, "true", "to = syslog\n");
  const std::string silent = place.add_steady();
  const std::string file = add_printing(place, "echo one", "file = x.log\n");
  place.start();
  const auto refused = [&](const std::string& name) {
    const control_result result = control(place.site(), {"logs", name});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    return result.errors;
  };
  const std::string begin = "keelmondctl logs: ";
  EXPECT_EQ(refused(journal), begin + journal + " writes to the journal: `journalctl -t " +
                                  journal + "` shows it.\n");
  EXPECT_EQ(refused(syslog), begin + syslog + " writes to the local syslog, as " + syslog + ".\n");
  EXPECT_EQ(refused(silent),
            begin + silent + " writes where keelmond does: give its file a section [log].\n");
  EXPECT_EQ(shown(place, {file}, 1), "one\n");
  const control_result all = control(place.site(), {"logs", "--all"});
  EXPECT_EQ(all.status, 0);
  EXPECT_EQ(all.output, "one\n");
  EXPECT_TRUE(contains(all.errors, journal));
  EXPECT_TRUE(contains(all.errors, silent));
}

TEST(runner_logs, knows_nothing_of_programs_that_run_without_keelmond_run) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  const control_result result = control(place, {"logs", name});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "keelmondctl logs: " + name +
                               " is not run by keelmond-run, so nothing is known of a log.\n");
}

TEST(runner_logs, finds_the_log_of_a_program_whose_file_was_spoiled_while_it_runs) {
  runner_place place;
  const std::string name = add_printing(place, "echo one", "file = x.log\n");
  place.start();
  EXPECT_EQ(shown(place, {name}, 1), "one\n");
  place.write(name, "[log]\nfile =\n");
  EXPECT_EQ(shown(place, {name}, 1), "one\n");
}
