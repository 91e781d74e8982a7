#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace {

std::string status_row(const installation& place, const std::string& name) {
  return row_of(control(place, {"status"}).output, name);
}

}  // namespace

TEST(control_status, shows_each_program_with_the_pid_of_the_program_itself) {
  installation place;
  const std::string runs = place.add_steady();
  const std::string stopped = place.add_steady();
  const std::string odd = place.add_steady();
  place.save({place.entry(runs),
              place.entry(stopped, "stop"),
              place.entry(odd, "maybe"),
              {"kmc_gone", "/nonexistent/kmc_gone", "run"}});
  place.start();
  const pid_t pid = place.wait_running(runs);
  const control_result status = control(place, {"status"});
  EXPECT_EQ(status.status, 0);
  EXPECT_TRUE(contains(status.output, "(PID " + std::to_string(place.daemon()) + ")"));
  EXPECT_TRUE(row_of(status.output, runs).starts_with(runs + " run running " + std::to_string(pid)))
      << status.output;
  EXPECT_TRUE(row_of(status.output, stopped).starts_with(stopped + " stop stopped -"))
      << status.output;
  EXPECT_TRUE(contains(row_of(status.output, odd), "neither run nor stop")) << status.output;
  EXPECT_TRUE(contains(row_of(status.output, "kmc_gone"), "run not loaded")) << status.output;
}

TEST(control_status, answers_by_its_exit_status) {
  installation place;
  const std::string runs = place.add_steady();
  const std::string stopped = place.add_steady();
  place.save({place.entry(runs), place.entry(stopped, "stop")});
  EXPECT_EQ(control(place, {"status"}).status, 3);
  write_file(place.site() / "run.pid", "");
  EXPECT_EQ(control(place, {"status"}).status, 1);
  fs::remove(place.site() / "run.pid");
  place.start();
  place.wait_running(runs);
  EXPECT_EQ(control(place, {"status"}).status, 0);
  EXPECT_EQ(control(place, {"status", runs}).status, 0);
  EXPECT_EQ(control(place, {"status", stopped}).status, 3);
  EXPECT_EQ(control(place, {"status", runs, stopped}).status, 3);
  const control_result unknown = control(place, {"status", "kmc_none"});
  EXPECT_EQ(unknown.status, 4);
  EXPECT_TRUE(contains(unknown.errors, "there is no program kmc_none here"));
}

TEST(control_status, shows_a_program_whose_entry_is_gone) {
  installation place;
  const std::string name = place.add_steady();
  place.start_with(name);
  place.edit(std::vector<listed_program>{});
  EXPECT_TRUE(contains(status_row(place, name), "- removed, still running"))
      << status_row(place, name);
}

TEST(control_status, shows_a_program_that_does_not_end) {
  installation place;
  const std::string name = place.add_script("trap '' USR2\n" + place.note_start() + place.stay());
  place.start_with(name);
  place.edit({place.entry(name, "stop")});
  EXPECT_TRUE(contains(status_row(place, name), "stop stopping")) << status_row(place, name);
}

TEST(control_status, shows_a_program_that_ends_again_and_again) {
  installation place;
  const std::string name = place.add_script(place.note_start());
  place.save({place.entry(name)});
  place.start();
  ASSERT_TRUE(wait_until([&] { return place.starts(name) > 20; }));
  // It is caught between two starts now and then.
  EXPECT_TRUE(wait_until([&] { return contains(status_row(place, name), "restarting often"); }));
}

TEST(control_status, does_not_take_the_restart_of_the_supervisor_for_programs_that_end) {
  installation place;
  std::vector<listed_program> programs;
  for (int i = 0; i < 5; ++i)
    programs.push_back(place.entry(place.add_steady()));
  place.save(programs);
  for (std::size_t i = 0; i < 2; ++i) {
    ASSERT_EQ(control(place, {"up"}).status, 0);
    ASSERT_TRUE(wait_until([&] { return count(place.log(), "launched") == 5 * (i + 1); }));
    EXPECT_TRUE(contains(control(place, {"status"}).output, ": 5 running\n"));
    ASSERT_EQ(control(place, {"down"}).status, 0);
  }
}

TEST(control_status, finds_the_daemon_whose_pid_file_was_deleted) {
  installation place;
  place.start();
  fs::remove(place.site() / "run.pid");
  const control_result status = control(place, {"status"});
  EXPECT_EQ(status.status, 0);
  EXPECT_TRUE(contains(status.output, "somebody deleted run.pid")) << status.output;
}

TEST(control_status, gives_programs_a_versioned_json) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t pid = place.start_with(name);
  const std::string json = control(place, {"status", "--json"}).output;
  for (const std::string& part :
       {std::string("\"schema\": \"keelmondctl.status\""), std::string("\"version\": 1"),
        "\"name\": \"" + name + "\"", std::string("\"actual\": \"running\""),
        "\"pid\": " + std::to_string(pid), "\"pid\": " + std::to_string(place.daemon()),
        std::string("\"run_pid\": \"held\"")}) {
    EXPECT_TRUE(contains(json, part)) << part << "\n" << json;
  }
}

TEST(control_status, counts_what_runs_below_the_program) {
  installation place;
  const std::string name = place.add_script(
      place.note_start() + "sleep 1000 &\nsleep 1000 &\ntrap 'kill 0' USR2\nwait\n");
  place.start_with(name);
  EXPECT_TRUE(wait_until([&] {
    const std::string json = control(place, {"status", "--json"}).output;
    return contains(json, "\"processes\": 3") || contains(json, "\"processes\": 4");
  }));
}
