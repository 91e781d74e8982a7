#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/runner/program_files.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

using runner::program_phase;
using runner::program_state;

namespace {

constexpr std::chrono::seconds kLimit{60};
/// How many lines each of the processes writes.
constexpr int kLines = 100;

int rounds() {
  const char* const wanted = std::getenv("KEELMOND_STRESS");
  return wanted != nullptr && wanted == std::string("long") ? 1000 : 25;
}

/// Writes lines that tell who wrote them and which it is, and stays; ignores what stops a program.
const std::string kWriter =
    "trap '' TERM HUP INT USR1 USR2\n"
    "i=0\n"
    "while [ $i -lt " +
    std::to_string(kLines) +
    " ]; do\n"
    "  echo \"$1 $$ $i a line that is long enough to be torn where it can be torn ;\"\n"
    "  i=$((i + 1))\n"
    "done\n"
    "echo \"$1 $$ done\"\n";

struct written {
  int next = 0;
  bool in_order = true;
};

/// Everything that was logged, the oldest file first.
std::string whole_log(const fs::path& directory) {
  std::vector<std::string> rotated;
  for (const auto& entry : fs::directory_iterator(directory)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with("storm.log.")) rotated.push_back(name);
  }
  std::sort(rotated.begin(), rotated.end());
  std::string text;
  for (const std::string& name : rotated)
    text += read_file(directory / name);
  return text + read_file(directory / "storm.log");
}

/// Whether a line is one that somebody wrote.
bool take_line(const std::string& line, std::map<std::string, written>& writers) {
  if (line.starts_with("keelmond-run: ")) return true;
  std::istringstream words(line);
  std::string kind;
  std::string pid;
  std::string number;
  if (!(words >> kind >> pid >> number)) return false;
  written& who = writers[kind + " " + pid];
  if (number == "done") return line == kind + " " + pid + " done";
  who.in_order = who.in_order && number == std::to_string(who.next);
  ++who.next;
  const std::string whole = kind + " " + pid + " " + number +
                            " a line that is long enough to be torn where it can be torn ;";
  return line == whole;
}

}  // namespace

TEST(runner_storm, nothing_is_left_and_no_line_is_torn_or_lost) {
  runner_place place;
  const std::string writer = place.site().add_script(kWriter + place.site().stay());
  // In the group; in a session of its own; without a parent; and the program itself.
  const std::string program = place.site().add_script(
      "w=\"${0%/*}/" + writer + "\"\n\"$w\" group &\nsetsid \"$w\" session &\n" +
      "(setsid \"$w\" orphan &)\nexec \"$w\" program\n");
  const std::string name =
      place.add("[program]\ncommand = " + place.path_of(program) +
                "\n[log]\nfile = storm.log\nsize = 64K\nkeep = 100000\n[stop]\ntimeout = 20ms\n"
                "[restart]\ndelay = 1ms\nlongest = 5ms\n");
  place.start();
  std::mt19937 random(std::random_device{}());
  const int wanted = rounds();
  program_state state = place.wait_phase(name, program_phase::running);
  for (int round = 0; round < wanted; ++round) {
    ASSERT_TRUE(wait_until([&] { return place.site().running(writer).size() >= 4; }, kLimit));
    const auto before = place.site().running(writer);
    // Each ends the program in another way; none of them loses what has been written.
    const bool by_launcher = random() % 2 == 0;
    ::kill(by_launcher ? state.launcher : state.pid, by_launcher ? SIGUSR2 : SIGKILL);
    const pid_t ended = state.pid;
    ASSERT_TRUE(wait_until(
        [&] {
          const auto now = place.state(name);
          if (!now || now->phase != program_phase::running || now->pid == ended) return false;
          state = *now;
          return true;
        },
        kLimit))
        << "round " << round;
    for (const pid_t one : before)
      ASSERT_FALSE(process_table::is_alive(one)) << "round " << round;
    ASSERT_TRUE(place.runs_once(name, state.launcher)) << "round " << round;
  }
  place.stop(name);
  EXPECT_TRUE(place.site().running(writer).empty());

  std::map<std::string, written> writers;
  std::istringstream log(whole_log(place.site().site() / "programs"));
  for (std::string line; std::getline(log, line);)
    ASSERT_TRUE(take_line(line, writers)) << line;
  for (const auto& [who, what] : writers)
    EXPECT_TRUE(what.in_order) << who;
  EXPECT_GE(writers.size(), static_cast<std::size_t>(wanted));
}

TEST(runner_storm, one_program_runs_whoever_is_killed) {
  runner_place place;
  const std::string name = place.add_steady("[restart]\ndelay = 1ms\nlongest = 5ms\n");
  place.start();
  std::mt19937 random(std::random_device{}());
  program_state state = place.wait_phase(name, program_phase::running);
  for (int round = 0; round < rounds() / 2; ++round) {
    switch (random() % 3) {
      case 0:
        ::kill(state.launcher, SIGKILL);
        break;
      case 1:
        ::kill(state.pid, SIGKILL);
        break;
      default:
        for (const pid_t child : place.site().children())
          ::kill(child, SIGKILL);
    }
    state = place.wait_again(name, state.pid);
    ASSERT_TRUE(place.runs_once(name, state.launcher)) << round;
  }
}
