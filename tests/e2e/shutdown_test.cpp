#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e/golden.h"
#include "tests/e2e/support/children.h"
#include "tests/e2e/support/installation.h"
#include "tests/e2e/support/slow_log.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace {

const std::string kOneRun =
    std::string(golden::kLogStart) + golden::kLaunched + golden::kExited + golden::kClosed;

/// A script that notes the stop command, takes its time and ends.
std::string graceful(const installation& place) {
  return place.note_start("start") + "trap '" + place.note_start("stop") + "exit 0' USR2\n" +
         place.stay();
}

/// A script that notes, when it gets the stop command, what is in the pid file, if there is one.
std::string pid_file_reader(const installation& place) {
  const std::string file = (place.site() / "run.pid").string();
  return place.note_start() + "trap 'test -e " + file + " && " +
         place.note_start("found:$(cat " + file + ")") + "exit 0' USR2\n" + place.stay();
}

/// Starts the installation with one program and waits until its launch is on record.
void start_one(installation& place, const std::string& name) {
  place.start_with(name);
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched);
}

/// The thread that shuts down and the program's own thread write their last lines in either order.
void expect_last_lines(const installation& place, const std::string& before,
                       const std::string& name) {
  const std::string stop = golden::stop_result(name);
  const std::string waited = golden::kWaitReturned;
  const std::string console = place.console();
  EXPECT_TRUE(console == before + stop + waited || console == before + waited + stop) << console;
}

}  // namespace

TEST(shutdown_by_usr2, stops_the_programs_removes_the_pid_file_and_closes_the_log) {
  installation place;
  const std::string name = place.add_steady();
  start_one(place, name);
  const pid_t program = place.running(name).at(0);
  const std::string console = place.console();

  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);

  EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
  EXPECT_FALSE(process_table::is_alive(program));
  EXPECT_EQ(with_times_and_pids_masked(place.log()), kOneRun);
  EXPECT_FALSE(place.has("notify/" + name + ".dat"));
  EXPECT_FALSE(place.has("run.pid"));
  expect_last_lines(place, console, name);
}

TEST(shutdown_by_usr2, stops_the_programs_in_the_order_of_the_list) {
  installation place;
  const std::vector<std::string> names{place.add_steady(), place.add_steady(), place.add_steady()};
  // Listed against the order of their names.
  place.start_with({names[2], names[0], names[1]});
  ASSERT_TRUE(wait_until([&] { return count(place.log(), "launched sub process") == 3; }));

  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);

  const std::string console = place.console();
  EXPECT_LT(console.find(golden::stop_result(names[2])),
            console.find(golden::stop_result(names[0])));
  EXPECT_LT(console.find(golden::stop_result(names[0])),
            console.find(golden::stop_result(names[1])));
  EXPECT_EQ(count(console, "kill -USR2 result: "), 3U);
  EXPECT_EQ(count(place.log(), "exited process PID: 4294967295  errno: 10\r\n"), 3U);
  EXPECT_TRUE(place.log().ends_with(golden::kClosed));
  EXPECT_TRUE(fs::is_empty(place.site() / "notify"));
}

TEST(shutdown_by_usr2, runs_the_stop_command_of_a_program_that_is_stopped_already) {
  installation place;
  const std::string name = place.add_steady();
  start_one(place, name);
  place.edit({place.entry(name, "stop")});
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched + golden::kExited);
  EXPECT_EQ(count(place.console(), golden::stop_result(name)), 1U);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_EQ(count(place.console(), golden::stop_result(name)), 2U);
}

TEST(shutdown_by_usr2, records_the_end_of_a_program_that_cleans_up_first) {
  installation place;
  const std::string name = place.add_script(graceful(place));
  start_one(place, name);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  ASSERT_EQ(place.notes(name).size(), 2U);
  EXPECT_TRUE(place.notes(name)[1].ends_with(" stop"));
  EXPECT_EQ(with_times_and_pids_masked(place.log()), kOneRun);
}

TEST(shutdown_by_usr2, removes_the_pid_file_only_when_the_programs_have_been_told) {
  installation place;
  const std::string name = place.add_script(pid_file_reader(place));
  start_one(place, name);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  ASSERT_EQ(place.notes(name).size(), 2U);
  EXPECT_TRUE(place.notes(name)[1].ends_with(" found:"));
  EXPECT_FALSE(place.has("run.pid"));
}

TEST(shutdown_by_usr2, does_not_wait_for_a_program_that_ignores_the_stop_command) {
  installation place;
  const std::string name = place.add_script("trap '' USR2\n" + place.note_start() + place.stay());
  start_one(place, name);
  const pid_t program = place.running(name).at(0);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_TRUE(process_table::is_alive(program));
  EXPECT_EQ(with_times_and_pids_masked(place.log()),
            std::string(golden::kLogStart) + golden::kLaunched + golden::kClosed);
  EXPECT_FALSE(place.has("run.pid"));
}

TEST(shutdown_by_usr2, stops_a_program_that_is_only_just_being_launched) {
  for (int i = 0; i < 5; ++i) {
    installation place;
    const std::string name = place.add_steady();
    place.save({place.entry(name)});
    ASSERT_EQ(place.run(), 0);
    const auto launched = [&] { return place.log().find("launched") != std::string::npos; };
    ASSERT_TRUE(wait_until([&] { return place.daemons().size() == 1 && launched(); }));
    const pid_t daemon = place.daemons()[0];
    ASSERT_EQ(::kill(daemon, SIGUSR2), 0);
    EXPECT_EQ(children::wait_for_end(daemon), 0);
    EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
    EXPECT_EQ(with_times_and_pids_masked(place.log()), kOneRun);
  }
}

TEST(shutdown_by_usr2, starts_no_program_again_meanwhile) {
  installation place;
  const std::string name = place.add_script(place.note_start());
  place.save({place.entry(name)});
  place.start();
  ASSERT_TRUE(wait_until([&] { return place.starts(name) >= 5; }));
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
  EXPECT_EQ(count(place.log(), "launched sub process"), count(place.log(), "exited process"));
  EXPECT_TRUE(place.log().ends_with(golden::kClosed));
}

TEST(shutdown_by_usr2, happens_within_the_pause_after_a_reload) {
  installation place;
  const std::string name = place.add_steady();
  start_one(place, name);
  place.edit({place.entry(name)});
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_EQ(with_times_and_pids_masked(place.log()), kOneRun);
  EXPECT_FALSE(place.has("run.pid"));
}

TEST(shutdown_by_usr2, happens_once_when_asked_for_several_times) {
  installation place;
  const std::string name = place.add_steady();
  start_one(place, name);
  for (const int number : {SIGUSR2, SIGUSR1, SIGUSR2, SIGUSR2})
    ::kill(place.daemon(), number);
  EXPECT_EQ(place.wait_end(), 0);
  EXPECT_EQ(with_times_and_pids_masked(place.log()), kOneRun);
  EXPECT_EQ(count(place.console(), golden::stop_result(name)), 1U);
}

TEST(shutdown_by_usr2, leaves_the_directory_ready_for_the_next_start) {
  installation place;
  const std::string name = place.add_steady();
  start_one(place, name);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  place.start();
  place.wait_running(name, 2);
  expect_log(place, kOneRun + golden::kLogStart + golden::kLaunched);
}

TEST(shutdown_by_int, stops_the_programs_and_leaves_the_pid_file_which_blocks_the_next_start) {
  installation place;
  const std::string name = place.add_steady();
  start_one(place, name);
  const std::string console = place.console();

  EXPECT_EQ(place.shut_down_by(SIGINT), 0);

  EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
  EXPECT_EQ(with_times_and_pids_masked(place.log()), kOneRun);
  EXPECT_FALSE(place.has("notify/" + name + ".dat"));
  expect_last_lines(place, console, name);
  ASSERT_TRUE(place.has("run.pid"));
  EXPECT_EQ(place.read("run.pid"), "");

  const std::string before = place.console();
  EXPECT_EQ(place.run(), 0);
  EXPECT_EQ(place.console(), before + golden::console_start(place) + golden::kAnotherInstance);
  EXPECT_EQ(with_times_and_pids_masked(place.log()), kOneRun + golden::kLogStart + golden::kClosed);
}

TEST(shutdown_without_configuration, follows_when_the_file_is_deleted) {
  installation place;
  const std::string name = place.add_script(graceful(place));
  start_one(place, name);
  const std::string console = place.console();

  fs::remove(place.site() / "config" / "server.ini");

  EXPECT_EQ(place.wait_end(), 0);
  EXPECT_TRUE(place.errors().starts_with("inotify_add_watch: No such file or directory\n"));
  EXPECT_NE(place.errors().find("\nkeelmond: ./config/server.ini cannot be watched"),
            std::string::npos);
  EXPECT_EQ(place.read("run.pid"), std::to_string(place.daemon()));
  EXPECT_TRUE(place.notes(name).back().ends_with(" stop"));
  EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
  EXPECT_EQ(with_times_and_pids_masked(place.log()), kOneRun);
  EXPECT_FALSE(place.has("notify/" + name + ".dat"));
  expect_last_lines(place, console + golden::kLoad + golden::kDaemonEnds, name);
}

TEST(shutdown_without_configuration, has_written_its_pid_when_the_programs_are_told) {
  installation place;
  const std::string name = place.add_script(pid_file_reader(place));
  start_one(place, name);
  fs::remove(place.site() / "config" / "server.ini");
  EXPECT_EQ(place.wait_end(), 0);
  ASSERT_EQ(place.notes(name).size(), 2U);
  EXPECT_TRUE(place.notes(name)[1].ends_with(" found:" + std::to_string(place.daemon())));
}

TEST(shutdown_without_configuration, is_averted_when_the_file_is_back_within_the_pause) {
  installation place;
  const std::string name = place.add_steady();
  start_one(place, name);
  const pid_t program = place.running(name).at(0);
  place.edit_by([&] { fs::remove(place.site() / "config" / "server.ini"); });
  place.save({place.entry(name)});
  place.wait_watching();
  EXPECT_EQ(place.errors(), "");
  EXPECT_EQ(place.running(name), std::vector<pid_t>{program});
  EXPECT_EQ(place.loads(), 2U);
}

TEST(shutdown_without_configuration, follows_at_once_when_there_is_no_file_at_the_start) {
  installation place;
  fs::remove(place.site() / "config" / "server.ini");
  EXPECT_EQ(place.run(), 0);
  ASSERT_TRUE(wait_until([&] { return place.log().ends_with(golden::kClosed); }));
  ASSERT_TRUE(wait_until([&] { return place.processes().empty(); }));
  EXPECT_EQ(place.console(), golden::console_start(place) + golden::kLoad + golden::kDaemonEnds);
  EXPECT_TRUE(place.errors().starts_with("inotify_add_watch: No such file or directory\n"));
  EXPECT_NE(place.errors().find("\nkeelmond: ./config/server.ini cannot be watched"),
            std::string::npos);
  EXPECT_EQ(with_times_and_pids_masked(place.log()),
            std::string(golden::kLogStart) + golden::kClosed);
  const std::string digits = place.read("run.pid");
  ASSERT_FALSE(digits.empty());
  ASSERT_TRUE(std::all_of(digits.begin(), digits.end(), [](char c) {
    return c >= '0' && c <= '9';
  })) << digits;
  // A daemon that ends before its parent has left it is reaped by the kernel, unseen.
  EXPECT_EQ(children::status_of(std::stoi(digits)).value_or(0), 0);
}

#ifndef KEELMOND_SANITIZED
// The sanitizers look for leaks when the process exits, and this one must not exit.
TEST(shutdown_with_a_log_that_hangs, does_not_wait_for_the_log) {
  for (const int request : {SIGUSR2, SIGINT}) {
    installation place;
    const slow_log log(place);
    const std::string name = place.add_steady();
    place.start_with(name);
    log.fill();
    EXPECT_EQ(place.shut_down_by(request), 0);
    EXPECT_EQ(place.has("run.pid"), request == SIGINT);
    EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
  }
}
#endif
