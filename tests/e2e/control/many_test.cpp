#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace {

/// How many programs: a few with every run, a thousand on request.
std::size_t how_many() {
  const char* const form = std::getenv("KEELMOND_STRESS");
  return form != nullptr && std::string_view(form) == "long" ? 1000 : 30;
}

/// Many programs in one installation, from one file under many names that end with their numbers.
class control_many : public testing::Test {
 protected:
  control_many() {
    const std::string file = place_.add_steady();
    for (std::size_t i = 0; i < count_; ++i) {
      // All equally long, so that none is part of another.
      const std::string name = ("m" + file).substr(0, 10) + std::to_string(1000 + i);
      fs::create_hard_link(place_.entry(file).exepath, place_.entry(name).exepath);
      programs_.push_back(place_.entry(name));
    }
    place_.save(programs_);
  }

  /// Runs a command that has to succeed, and gives it time. @return what it printed.
  std::string done(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--timeout", "200s"});
    const control_result result = control(place_, arguments);
    EXPECT_EQ(result.status, 0) << arguments.front() << ": " << result.errors;
    return result.output;
  }

  /// The line above the table of `status`.
  [[nodiscard]] std::string counts() const {
    const std::string text = control(place_, {"status"}).output;
    const std::size_t end = text.find('\n');
    const std::size_t begin = text.rfind(": ", end);
    return begin == std::string::npos ? text : text.substr(begin + 2, end - begin - 2);
  }

  /// The names of programs with that last digit.
  [[nodiscard]] std::vector<std::string> names_with(char digit) const {
    std::vector<std::string> names;
    for (const listed_program& program : programs_) {
      if (program.name.back() == digit) names.push_back(program.name);
    }
    return names;
  }

  /// Whether each program runs once, those with that last digit not at all.
  [[nodiscard]] bool each_runs_once(char without = '-') const {
    std::map<std::string, int> running;
    for (const auto& process : process_table::all())
      ++running[process.name];
    for (const listed_program& program : programs_) {
      if (running[program.name] != (program.name.back() == without ? 0 : 1)) return false;
    }
    return true;
  }

  /// Each program with one of these last digits notes that many starts, a moment after it has its
  /// name.
  void expect_starts(std::size_t starts, std::string_view digits = "0123456789") const {
    for (const listed_program& program : programs_) {
      if (digits.find(program.name.back()) == digits.npos) continue;
      EXPECT_TRUE(wait_until([&] { return place_.starts(program.name) == starts; }))
          << program.name << " has noted " << place_.starts(program.name);
    }
  }

  void expect_down() {
    done({"down"});
    EXPECT_EQ(daemon_of(place_), 0);
    EXPECT_TRUE(place_.processes().empty());
  }

  installation place_;
  std::size_t count_ = how_many();
  std::string all_ = std::to_string(count_);
  std::vector<listed_program> programs_;
};

}  // namespace

TEST_F(control_many, programs_come_up_are_seen_and_go_down) {
  const std::string up = done({"up"});
  EXPECT_TRUE(contains(up, all_ + " of " + all_ + " programs")) << up;
  EXPECT_EQ(counts(), all_ + " running");
  EXPECT_TRUE(each_runs_once());
  expect_starts(1);
  expect_down();
  expect_starts(1);
}

TEST_F(control_many, programs_are_stopped_started_and_restarted_by_patterns) {
  done({"up"});
  expect_starts(1);
  const std::size_t part = names_with('7').size();
  done({"stop", "*7"});
  EXPECT_EQ(counts(),
            std::to_string(count_ - part) + " running, " + std::to_string(part) + " stopped");
  EXPECT_TRUE(each_runs_once('7'));
  done({"start", "*7"});
  EXPECT_EQ(counts(), all_ + " running");
  const std::string restarted = done({"restart", "*3"});
  EXPECT_EQ(count(restarted, " and is PID "), names_with('3').size()) << restarted;
  EXPECT_TRUE(each_runs_once());
  expect_starts(2, "37");
  expect_down();
  expect_starts(2, "37");
  expect_starts(1, "01245689");
}

TEST_F(control_many, programs_are_steered_by_commands_at_once) {
  done({"up"});
  running_control stop(place_, {"stop", "*7", "--timeout", "200s"});
  running_control restart(place_, {"restart", "*3", "--timeout", "200s"});
  const listed_program more = place_.entry("z" + programs_.front().name.substr(1));
  fs::create_hard_link(programs_.front().exepath, more.exepath);
  running_control add(
      place_, {"add", more.name, "--exepath", more.exepath, "--stopped", "--timeout", "200s"});
  for (running_control* const one : {&stop, &restart, &add}) {
    const control_result result = one->wait();
    EXPECT_EQ(result.status, 0) << result.errors;
  }
  EXPECT_TRUE(each_runs_once('7'));
  const std::size_t part = names_with('7').size();
  EXPECT_EQ(counts(),
            std::to_string(count_ - part) + " running, " + std::to_string(part + 1) + " stopped");
  expect_down();
}

TEST_F(control_many, programs_come_back_once_when_the_daemon_was_killed) {
  done({"up"});
  expect_starts(1);
  ASSERT_EQ(::kill(daemon_of(place_), SIGKILL), 0);
  ASSERT_TRUE(wait_until([&] { return daemon_of(place_) == 0; }));
  EXPECT_EQ(counts(), all_ + " stopped, " + all_ + " left over");
  const std::string up = done({"up"});
  EXPECT_EQ(count(up, ", which an earlier keelmond left running"), count_);
  EXPECT_TRUE(each_runs_once());
  expect_starts(2);
  expect_down();
}
