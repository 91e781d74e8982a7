#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tests/e2e/runner/http_server.h"
#include "tests/e2e/runner/program_files.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

using runner::program_phase;
using runner::program_state;

namespace {

/// Runs a server with a port of its own until it is ready, and asks for its health in the way of a
/// line that begins with `ask` and goes on with the port and `path`.
std::string add_asked_server(runner_place& place, const std::string& ask, const std::string& path) {
  const std::string port = free_port();
  return place.add("[program]\ncommand = " + add_http_server(place) + " " + port +
                   "\n[ready]\ntcp = " + port + "\n[health]\n" + ask + port + path +
                   "\nevery = 20ms\ntimeout = 10s\nfailures = 2\n[restart]\ndelay = 1ms\n");
}

/// Waits until the program has been ended for its health, and comes back well.
void expect_end_and_return(runner_place& place, const std::string& name, const program_state& first,
                           const std::string& reason) {
  write_file(place.path_of(reason), "");
  ASSERT_TRUE(wait_until([&] { return !process_table::is_alive(first.pid); }));
  fs::remove(place.path_of(reason));
  const program_state second = place.wait_again(name, first.pid);
  EXPECT_TRUE(contains(second.status, "health checks failed")) << second.status;
  EXPECT_TRUE(place.tells(": 2 health checks failed: it is ended\n"));
}

}  // namespace

TEST(runner_health, a_program_that_is_not_well_is_ended_and_comes_back) {
  runner_place place;
  const std::string name = place.add_steady(
      "[health]\nshell = yes\ncommand = echo x >> asked; test ! -e ill\nevery = 30ms\n"
      "failures = 2\n[restart]\ndelay = 1ms\n");
  place.start();
  const program_state first = place.wait_phase(name, program_phase::running);
  ASSERT_TRUE(wait_until([&] { return count(place.read("asked"), "\n") >= 3; }));
  EXPECT_TRUE(process_table::is_alive(first.pid));
  write_file(place.path_of("ill"), "");
  ASSERT_TRUE(wait_until([&] { return !process_table::is_alive(first.pid); }));
  fs::remove(place.path_of("ill"));
  const program_state second = place.wait_again(name, first.pid);
  EXPECT_NE(second.status.find("health checks failed"), std::string::npos);
}

TEST(runner_health, a_question_that_is_not_answered_counts_as_a_bad_answer) {
  runner_place place;
  const std::string name = place.add_steady(
      "[health]\ncommand = sleep 1000\nevery = 10ms\ntimeout = 50ms\nfailures = 2\n");
  place.start();
  const program_state first = place.wait_phase(name, program_phase::running);
  place.wait_again(name, first.pid);
}

TEST(runner_health, http_counts_an_answer_that_is_no_good) {
  if (!has_python()) GTEST_SKIP() << "there is no python3";
  runner_place place;
  const std::string name = add_asked_server(place, "http = http://127.0.0.1:", "/health?x");
  place.start();
  const program_state first = place.wait_phase(name, program_phase::running);
  // As long as the answers are good, it lives.
  ASSERT_TRUE(wait_until([&] { return count(place.read("asked"), "/health?x\n") >= 4; }));
  EXPECT_TRUE(process_table::is_alive(first.pid));
  expect_end_and_return(place, name, first, "ill");
}

TEST(runner_health, tcp_counts_a_port_that_takes_nobody) {
  if (!has_python()) GTEST_SKIP() << "there is no python3";
  runner_place place;
  const std::string name = add_asked_server(place, "tcp = ", "");
  place.start();
  const program_state first = place.wait_phase(name, program_phase::running);
  EXPECT_TRUE(keeps([&] { return process_table::is_alive(first.pid); }));
  expect_end_and_return(place, name, first, "deaf");
}

TEST(runner_health, one_good_answer_makes_up_for_bad_ones) {
  runner_place place;
  // Every second answer is bad, and so never two in a row.
  const std::string name = place.add_steady(
      "[health]\nshell = yes\nevery = 5ms\ntimeout = 20s\nfailures = 2\n"
      "command = echo x >> asked; test $(($(wc -l < asked) % 2)) = 0\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  ASSERT_TRUE(wait_until([&] { return count(place.read("asked"), "\n") >= 10; }));
  EXPECT_TRUE(process_table::is_alive(state.pid));
  EXPECT_EQ(place.state(name)->pid, state.pid);
}
