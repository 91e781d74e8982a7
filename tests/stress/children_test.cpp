#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include "tests/e2e/support/installation.h"
#include "tests/stress/support/stress.h"
#include "tests/support/wait_until.h"

using stress::rounds;

namespace {

constexpr int kSignals[] = {SIGUSR1, SIGUSR2, SIGINT};

/// Nothing of what the supervisor's handlers do has been done by anybody.
void expect_untouched(const installation& place) {
  EXPECT_EQ(place.loads(), 1U);
  EXPECT_TRUE(place.has("run.pid"));
  EXPECT_TRUE(stress::stopped_names(place).empty());
  EXPECT_EQ(count(place.log(), "log file"), 0U);
  EXPECT_TRUE(process_table::is_alive(place.daemon()));
}

}  // namespace

TEST(children, do_nothing_about_the_signals_of_the_supervisor) {
  auto random = stress::random_numbers();
  installation place;
  std::vector<listed_program> programs;
  std::vector<std::string> steady;
  for (int i = 0; i < 3; ++i) {
    steady.push_back(place.add_steady());
    programs.push_back(place.entry(steady.back()));
  }
  // Their children are young whenever they are met.
  for (int i = 0; i < 3; ++i)
    programs.push_back(place.entry(place.add_script("exit 0\n")));
  place.save(programs);
  place.start();
  std::vector<pid_t> pids;
  for (const std::string& name : steady)
    pids.push_back(place.wait_running(name));
  // What a child would start if it loaded the file.
  const std::string added = place.add_steady();
  const std::size_t starts = stress::launches(place);

  for (int i = 0; i < rounds(2000, 150); ++i) {
    for (const pid_t child : place.children())
      ::kill(child, kSignals[stress::between(random, 0, 2)]);
  }

  EXPECT_TRUE(wait_until([&] { return stress::launches(place) > starts + 10; }))
      << "the other programs are started no more";
  expect_untouched(place);
  for (std::size_t i = 0; i < steady.size(); ++i)
    EXPECT_EQ(place.wait_running(steady[i]), pids[i]);
  EXPECT_EQ(place.starts(added), 0U);
  stress::expect_clean_end(place);
  EXPECT_EQ(stress::launches(place), stress::ends(place));
}

TEST(children, give_their_programs_the_mask_of_the_start) {
  installation place;
  const std::string name = place.add_script("exec sleep 1000\n");
  place.save({place.entry(name)});
  place.start();
  pid_t sleeper = 0;
  ASSERT_TRUE(wait_until([&] {
    for (const auto& process : place.processes())
      sleeper = process.name == "sleep" ? process.pid : sleeper;
    return sleeper != 0;
  }));
  EXPECT_EQ(process_table::status_field(sleeper, "SigBlk"), "0000000000000000");
  // Some shells clear the mask that they are given, so it is looked at before, too. The one signal
  // in it is SIGCHLD, which a child blocks while its shell runs.
  const pid_t child = place.children().at(0);
  const auto mask = [child] { return process_table::status_field(child, "SigBlk"); };
  EXPECT_TRUE(wait_until([&] { return mask() == "0000000000010000"; })) << mask();
  ::kill(sleeper, SIGUSR2);
  EXPECT_TRUE(wait_until([&] { return !process_table::is_alive(sleeper); }));
}

TEST(children, of_a_supervisor_that_was_killed_change_nothing_either) {
  for (int i = 0; i < rounds(50, 3); ++i) {
    installation place;
    const std::string name = place.add_steady();
    const pid_t program = place.start_with(name);
    EXPECT_TRUE(wait_until([&] { return stress::launches(place) == 1; }));
    const auto children = place.children();
    ASSERT_EQ(children.size(), 1U);
    ::kill(place.daemon(), SIGKILL);
    EXPECT_EQ(place.wait_end(), 128 + SIGKILL);
    for (const int number : kSignals)
      ::kill(children[0], number);
    EXPECT_TRUE(keeps([&] { return process_table::is_alive(program); }));
    EXPECT_EQ(place.loads(), 1U);
    EXPECT_TRUE(place.has("run.pid"));
    EXPECT_TRUE(stress::stopped_names(place).empty());
    EXPECT_EQ(count(place.log(), "log file"), 0U);
  }
}
