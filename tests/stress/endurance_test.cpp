#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/e2e/support/installation.h"
#include "tests/stress/support/stress.h"
#include "tests/support/log_text.h"
#include "tests/support/wait_until.h"

using stress::rounds;

namespace {

const std::vector<int> kStandard{0, 1, 2};

/// What a process holds.
struct holdings {
  std::size_t descriptors;
  long threads;
  long resident;  ///< In kB.

  explicit holdings(pid_t pid)
      : descriptors(stress::descriptors(pid).size()),
        threads(stress::status_number(pid, "Threads")),
        resident(stress::status_number(pid, "VmRSS")) {}
};

/// Reloads at least `times` times, and every second time the file has been replaced.
void reload_many(const installation& place, const std::string& text, int times) {
  stress::load_count loads(place);
  for (int i = 0; i < times; ++i) {
    const std::size_t before = loads.now();
    if (i % 2 == 0) place.save(text);
    place.signal(SIGUSR1);
    ASSERT_TRUE(wait_until([&] { return loads.now() > before; })) << i;
  }
}

/// In a pause there is no watch, which is a descriptor less.
holdings while_watching(const installation& place) {
  holdings found(place.daemon());
  wait_until([&] {
    if (!place.is_watching()) return false;
    found = holdings(place.daemon());
    return place.is_watching();
  });
  return found;
}

void expect_same(const installation& place, const holdings& before) {
  // In the middle of a reload or a start there is a descriptor more.
  EXPECT_TRUE(wait_until([&] {
    const holdings now(place.daemon());
    return now.descriptors == before.descriptors && now.threads == before.threads;
  })) << "descriptors: "
      << before.descriptors << ", then " << holdings(place.daemon()).descriptors
      << "; threads: " << before.threads << ", then " << holdings(place.daemon()).threads;
#ifndef KEELMOND_SANITIZED
  EXPECT_LE(holdings(place.daemon()).resident, before.resident + 256);
#endif
}

}  // namespace

TEST(endurance, keeps_descriptors_threads_and_memory_where_they_were) {
  installation place;
  std::vector<listed_program> programs;
  for (int i = 0; i < 4; ++i)
    programs.push_back(place.entry(place.add_steady()));
  // These are restarted all the time.
  for (int i = 0; i < 2; ++i)
    programs.push_back(place.entry(place.add_script("exit 0\n")));
  const std::string text = server_ini(programs);
  place.save(text);
  place.start(stress::fast());
  for (int i = 0; i < 4; ++i)
    place.wait_running(programs[static_cast<std::size_t>(i)].name);
  ASSERT_NO_FATAL_FAILURE(reload_many(place, text, 50));
  const holdings before = while_watching(place);
  const std::size_t starts = stress::launches(place);

  const int times = rounds(10000, 300);
  ASSERT_NO_FATAL_FAILURE(reload_many(place, text, times));

  EXPECT_TRUE(wait_until(
      [&] { return stress::launches(place) >= starts + static_cast<std::size_t>(times); },
      stress::patience()));
  expect_same(place, before);
  stress::expect_clean_end(place);
}

TEST(endurance, leaves_children_and_programs_nothing_but_the_standard_descriptors) {
  installation place;
  std::vector<listed_program> programs;
  std::vector<std::string> names;
  for (int i = 0; i < 5; ++i) {
    names.push_back(place.add_steady());
    programs.push_back(place.entry(names.back()));
  }
  const std::string text = server_ini(programs);
  place.save(text);
  place.start(stress::fast());
  for (int i = 0; i < rounds(300, 15) && !HasFailure(); ++i) {
    ASSERT_TRUE(stress::settles(place, names, names));
    for (const pid_t child : place.children()) {
      EXPECT_TRUE(wait_until([&] { return stress::descriptors(child) == kStandard; }))
          << stress::descriptors(child).size() << " descriptors in a child";
      EXPECT_EQ(process_table::count_watches(child), 0);
    }
    // The programs are started anew while the file is read and watched again.
    place.save(text);
    for (const std::string& name : names) {
      for (const pid_t pid : place.running(name)) {
        // A shell reads its script from a descriptor of its own, by which it executes nothing.
        for (const int fd : stress::descriptors(pid))
          EXPECT_TRUE(fd <= 2 || fd >= 10) << fd;
        ::kill(pid, SIGKILL);
      }
    }
  }
  stress::expect_clean_end(place);
}

TEST(endurance, writes_every_line_once_and_whole) {
  installation place;
  std::vector<listed_program> programs;
  for (int i = 0; i < 8; ++i)
    programs.push_back(place.entry(place.add_script(place.note_start())));
  place.save(programs);
  place.start();
  const auto wanted = static_cast<std::size_t>(rounds(20000, 1500));
  EXPECT_TRUE(wait_until([&] { return stress::launches(place) >= wanted; }, stress::patience()));
  stress::expect_clean_end(place);

  std::size_t ended = 0;
  for (const std::string& line : lines_of(place.console()))
    ended += line == "Waiting has returned." ? 1 : 0;
  EXPECT_EQ(ended, stress::ends(place));
  EXPECT_EQ(count(place.console(), "Waiting"), ended);
  std::size_t noted = 0;
  for (const listed_program& program : programs)
    noted += place.starts(program.name);
  // Those that the stop command met before their first line have noted nothing.
  EXPECT_LE(noted, stress::launches(place));
  EXPECT_GE(noted + programs.size(), stress::launches(place));

  const auto lines = lines_of(with_times_and_pids_masked(place.log()));
  std::size_t others = 0;
  for (const std::string& line : lines) {
    others += line != "launched sub process PID: <pid> " && line != "<time>" &&
              line != "exited process PID: 4294967295  errno: 10";
  }
  EXPECT_EQ(others, 4U) << "the four lines of the start and the end";
}
