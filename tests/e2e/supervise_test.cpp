#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e/golden.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace {

const std::string kStarted = std::string(golden::kLogStart) + golden::kLaunched;

}  // namespace

TEST(supervise, starts_a_killed_program_again) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t first = place.start_with(name);
  expect_log(place, kStarted);
  const std::string console = place.console();

  ::kill(first, SIGKILL);

  EXPECT_NE(place.wait_running(name, 2), first);
  expect_log(place, kStarted + golden::kExited + golden::kLaunched);
  EXPECT_EQ(place.console(), console + golden::kWaitReturned);
  EXPECT_TRUE(wait_until([&] { return place.is_live(name); }));
}

TEST(supervise, sleeps_while_nothing_happens) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer has a thread of its own that does not";
#endif
  installation place;
  place.start_with(place.add_steady());
  // Of every thread, those of the daemon's children included.
  const auto switches = [&] {
    std::string all;
    std::vector<pid_t> processes = place.children();
    processes.push_back(place.daemon());
    for (const pid_t pid : processes) {
      for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        const pid_t thread = std::stoi(task.path().filename().string());
        all += process_table::status_field(thread, "voluntary_ctxt_switches") + " ";
      }
    }
    return all;
  };
  EXPECT_TRUE(wait_until([&] {
    const std::string before = switches();
    return keeps([&] { return switches() == before; }, std::chrono::seconds(2));
  }));
}

TEST(supervise, leaves_other_programs_alone_when_one_ends) {
  installation place;
  const std::string ending = place.add_steady();
  const std::string other = place.add_steady();
  const std::vector<pid_t> running = place.start_with({ending, other});
  ::kill(running.front(), SIGKILL);
  place.wait_running(ending, 2);
  EXPECT_EQ(place.wait_running(other), running.back());
}

TEST(supervise, starts_a_program_that_ends_at_once_again_without_a_pause) {
  installation place;
  // The status of the end does not count.
  const std::string name = place.add_script(place.note_start() + "exit 3\n");
  place.save({place.entry(name)});
  place.start();
  // The machine may be busy, so it is the quickest of many restarts that counts.
  using clock = std::chrono::steady_clock;
  clock::duration quickest = std::chrono::hours(1);
  std::size_t seen = 0;
  auto seen_at = clock::now();
  EXPECT_TRUE(wait_until([&] {
    const std::size_t starts = place.starts(name);
    if (starts > seen) {
      const auto now = clock::now();
      if (seen > 0)
        quickest = std::min(quickest, (now - seen_at) / static_cast<int>(starts - seen));
      seen = starts;
      seen_at = now;
    }
    return seen >= 60;
  }));
  EXPECT_LT(quickest, std::chrono::milliseconds(500));
  EXPECT_GE(count(place.log(), "exited process PID: 4294967295  errno: 10\r\n"), 59U);
}

TEST(supervise, marks_running_programs_in_the_notify_directory) {
  installation place;
  const std::string name = place.add_steady();
  place.start_with(name);
  EXPECT_EQ(place.read("notify/" + name + ".dat"), "1");
}

TEST(supervise, takes_a_stopped_child_for_ended_and_starts_the_program_once_more) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t program = place.start_with(name);
  const pid_t child = place.children().at(0);

  ::kill(child, SIGSTOP);

  ASSERT_TRUE(
      wait_until([&] { return place.starts(name) == 2 && place.running(name).size() == 2; }));
  EXPECT_NE(place.log().find("exited process PID: " + std::to_string(child) + "  errno: "),
            std::string::npos);
  EXPECT_TRUE(process_table::is_alive(program));
  const auto stopped = process_table::find(child);
  ASSERT_TRUE(stopped.has_value());
  EXPECT_EQ(stopped->state, 'T');
  // Both have the program's name.
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_TRUE(wait_until([&] { return place.running(name).empty(); }));
}

TEST(supervise, runs_the_program_in_its_own_directory) {
  installation place;
  const std::string name =
      place.add_script(place.note_start("$(pwd -P)") + place.stay(), "programs/of/others");
  const fs::path directory = place.site() / "programs" / "of" / "others";
  place.save({{name, (directory / name).string()}});
  place.start();
  const pid_t program = place.wait_running(name);
  EXPECT_EQ(place.notes(name)[0], std::to_string(program) + " " + directory.string());
}

TEST(supervise, lets_the_shell_split_a_path_with_blanks) {
  installation place;
  const std::string name = place.add_script(place.note_start("<$#:$1:$2>") + place.stay());
  const fs::path full = place.site() / "programs" / (name + " one two");
  // This one is looked for, the other one is run.
  place.write_script(full, "exit 1\n");
  place.save({{name, full.string()}});
  place.start();
  const pid_t program = place.wait_running(name);
  EXPECT_EQ(place.notes(name)[0], std::to_string(program) + " <2:one:two>");
}

TEST(supervise, runs_the_file_in_the_working_directory_when_no_path_is_given) {
  installation place;
  const std::string name = place.add_script(place.note_start("$0") + place.stay(), ".");
  place.save({{name}});
  place.start();
  const pid_t program = place.wait_running(name);
  EXPECT_EQ(place.notes(name)[0], std::to_string(program) + " " + (place.site() / name).string());
}

TEST(supervise, reads_on_behind_a_gap_in_the_numbers) {
  installation place;
  const std::string first = place.add_steady();
  const std::string third = place.add_steady();
  const std::string text = server_ini({place.entry(first), {}, place.entry(third)});
  ASSERT_NE(text.find("svr2=\n"), std::string::npos);
  place.save(text);
  place.start();
  place.wait_running(first);
  place.wait_running(third);
  EXPECT_EQ(place.console(), golden::console_start(place) + golden::kLoad + golden::started(first) +
                                 golden::started(third));
}

TEST(supervise, takes_no_more_entries_than_the_count_says) {
  installation place;
  const std::string first = place.add_steady();
  const std::string second = place.add_steady();
  std::string text = server_ini({place.entry(first), place.entry(second)});
  place.save(text.replace(text.find("linux=2"), 7, "linux=1"));
  place.start();
  place.wait_running(first);
  EXPECT_EQ(place.console(), golden::console_start(place) + golden::kLoad + golden::started(first));
}

TEST(supervise, reads_nothing_without_a_count) {
  for (const char* count : {"", "linux=0\n", "linux=-1\n"}) {
    SCOPED_TRACE(count);
    installation place;
    const std::string name = place.add_steady();
    std::string text = server_ini({place.entry(name)});
    place.save(text.replace(text.find("linux=1\n"), 8, count));
    place.start();
    EXPECT_EQ(place.console(), golden::console_start(place) + golden::kLoad);
    EXPECT_EQ(with_times_and_pids_masked(place.log()), golden::kLogStart);
  }
}

TEST(supervise, is_not_held_up_by_a_huge_count) {
  installation place;
  const std::string name = place.add_steady();
  std::string text = server_ini({place.entry(name)});
  place.save(text.replace(text.find("linux=1"), 7, "linux=2000000000"));
  place.start();
  place.wait_running(name);
}

TEST(supervise, skips_a_missing_program_without_a_word) {
  installation place;
  const std::string name = place.add_steady();
  place.save({{"nowhere", "/nonexistent/nowhere"}, place.entry(name)});
  place.start();
  expect_log(place, kStarted);
  EXPECT_EQ(place.console(), golden::console_start(place) + golden::kLoad +
                                 golden::read_entry("nowhere") + golden::started(name));
  EXPECT_FALSE(place.has("notify/nowhere.dat"));
}

TEST(supervise, logs_a_program_that_may_not_be_executed_and_goes_on) {
  installation place;
  const std::string name = place.add_steady();
  const std::string locked = place.add_steady();
  const listed_program refused = place.entry(locked);
  fs::permissions(refused.exepath, fs::perms::owner_read | fs::perms::owner_write);
  place.save({refused, place.entry(name)});
  place.start();
  expect_log(place, std::string(golden::kLogStart) +
                        "access(X_OK) .errno:13 error:Permission denied (" + refused.exepath +
                        ")\n<time>\r\n" + golden::kLaunched);
  EXPECT_EQ(place.console(), golden::console_start(place) + golden::kLoad +
                                 golden::read_entry(locked) + golden::started(name));
  EXPECT_FALSE(place.has("notify/" + locked + ".dat"));
}

TEST(supervise, leaves_a_program_alone_whose_state_is_neither_run_nor_stop) {
  for (const char* state : {"", "Run", "RUN", "running", "pause"}) {
    SCOPED_TRACE(state);
    installation place;
    const std::string name = place.add_steady();
    place.save({place.entry(name, state)});
    place.start();
    EXPECT_EQ(place.console(),
              golden::console_start(place) + golden::kLoad + golden::read_entry(name));
    EXPECT_EQ(place.starts(name), 0U);
    EXPECT_FALSE(place.has("notify/" + name + ".dat"));
  }
}

TEST(supervise, starts_a_program_once_that_is_listed_twice) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name), place.entry(name)});
  place.start();
  place.wait_running(name);
  expect_log(place, kStarted);
  EXPECT_EQ(count(place.console(), "Start 333."), 1U);
  EXPECT_EQ(count(place.console(), "monitor " + name + " Start 11.\r\n"), 1U);
}

TEST(supervise, shares_standard_output_with_its_programs) {
  installation place;
  const std::string name = place.add_script("echo heard of\n" + place.note_start() + place.stay());
  place.start_with(name);
  EXPECT_EQ(count(place.console(), "heard of\n"), 1U);
}
