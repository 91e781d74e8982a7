#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/control/proc/descriptor_limit.h"
#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace {

/// The value of a metric's line; "" when there is none.
std::string value_of(const std::string& metrics, const std::string& name) {
  std::istringstream lines(metrics);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name + " ")) return line.substr(name.size() + 1);
  }
  return "";
}

/// Every line of the text format is a comment or a name, labels and a number, and each metric is
/// declared before its first value and once.
void expect_well_formed(const std::string& metrics) {
  std::istringstream lines(metrics);
  std::string declared;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("# TYPE ")) {
      const std::string name = line.substr(7, line.find(' ', 7) - 7);
      EXPECT_FALSE(contains(declared, "<" + name + ">")) << line;
      declared += "<" + name + ">";
      EXPECT_TRUE(line.ends_with(name.ends_with("_total") ? " counter" : " gauge")) << line;
    } else if (!line.starts_with("# HELP ")) {
      const std::string name = line.substr(0, line.find_first_of("{ "));
      EXPECT_TRUE(contains(declared, "<" + name + ">")) << line;
      const std::string value = line.substr(line.rfind(' ') + 1);
      char* end = nullptr;
      std::strtod(value.c_str(), &end);
      EXPECT_EQ(*end, '\0') << line;
    }
  }
  EXPECT_TRUE(metrics.ends_with('\n'));
}

}  // namespace

TEST(control_log, shows_an_event_on_a_line_with_its_time_and_program) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t first = place.start_with(name);
  ::kill(first, SIGKILL);
  place.wait_running(name, 2);
  ASSERT_TRUE(wait_until([&] { return count(place.log(), "launched") == 2; }));
  const control_result log = control(place, {"log"});
  EXPECT_EQ(log.status, 0) << log.errors;
  EXPECT_EQ(count(log.output, "\n"), 4U) << log.output;
  EXPECT_TRUE(contains(log.output, "  keelmond was started by PID ")) << log.output;
  EXPECT_TRUE(contains(log.output, "  a program was started (child PID ")) << log.output;
  EXPECT_TRUE(contains(log.output, "  a program ended\n")) << log.output;
  EXPECT_TRUE(contains(log.output, "  " + name + " was started (child PID ")) << log.output;
  EXPECT_EQ(count(control(place, {"log", "-n", "1"}).output, "\n"), 1U);
  EXPECT_EQ(count(control(place, {"log", "--since", "1h"}).output, "\n"), 4U);
  EXPECT_EQ(control(place, {"log", "--since", "0s"}).status, 0);
  EXPECT_EQ(control(place, {"log", "--since", "tomorrow"}).status, 2);
  const std::string json = control(place, {"log", "-n", "1", "--json"}).output;
  EXPECT_EQ(nlohmann::json::parse(json).at("program"), name);
  EXPECT_EQ(nlohmann::json::parse(json).at("event"), "program_started");
}

TEST(control_log, finds_as_many_events_as_are_asked_for_however_long_they_are) {
  installation place;
  std::string log = "keelmond Start PID: 1 \r\n2020-01-01 10:00:00\r\n";
  for (int i = 0; i < 4000; ++i) {
    log += "access(X_OK) failed (/srv/" + std::string(600, 'x') + std::to_string(i) +
           ")\r\n2030-01-01 10:00:00\r\n";
  }
  write_file(place.site() / "keelmond.log", log);
  EXPECT_EQ(count(control(place, {"log", "-n", "100"}).output, "\n"), 100U);
  EXPECT_EQ(count(control(place, {"log", "--since", "2025-01-01"}).output, "\n"), 4000U);
  EXPECT_EQ(count(control(place, {"log", "--since", "2019-01-01"}).output, "\n"), 4001U);
  EXPECT_EQ(count(control(place, {"log", "--since", "2019-01-01", "-n", "2"}).output, "\n"), 2U);
}

TEST(control_log, follows_what_happens_and_names_the_program_that_ended) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t first = place.start_with(name);
  ASSERT_TRUE(wait_until([&] { return count(place.log(), "launched") == 1; }));
  running_control log(place, {"log", "-f", "-n", "1"});
  ASSERT_TRUE(wait_until([&] { return count(log.output(), "\n") == 1; }));
  ::kill(first, SIGKILL);
  EXPECT_TRUE(wait_until([&] { return contains(log.output(), name + " ended\n"); }))
      << log.output();
  EXPECT_TRUE(wait_until([&] { return count(log.output(), name + " was started") == 2; }))
      << log.output();
}

TEST(control_log, survives_rotation) {
  installation place;
  const std::string name = place.add_steady();
  place.start_with(name);
  ASSERT_TRUE(wait_until([&] { return count(place.log(), "launched") == 1; }));
  running_control log(place, {"log", "-f", "-n", "1"});
  ASSERT_TRUE(wait_until([&] { return count(log.output(), "\n") == 1; }));
  // Emptied, as copytruncate does, and then renamed.
  fs::resize_file(place.site() / "keelmond.log", 0);
  ::kill(place.running(name).at(0), SIGKILL);
  EXPECT_TRUE(wait_until([&] { return count(log.output(), "was started") == 2; })) << log.output();
  fs::rename(place.site() / "keelmond.log", place.site() / "keelmond.log.1");
  write_file(place.site() / "keelmond.log", "keelmond Start PID: 4711 \r\n2026-11-15 10:02:03\r\n");
  EXPECT_TRUE(wait_until([&] { return contains(log.output(), "PID 4711\n"); })) << log.output();
}

TEST(control_wait, returns_when_programs_are_alive_or_have_ended) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  running_control up(place, {"wait", name});
  EXPECT_EQ(control(place, {"wait", name, "--timeout", "100ms"}).status, 1);
  EXPECT_EQ(control(place, {"wait", name, "--down"}).status, 0);
  ASSERT_EQ(control(place, {"up"}).status, 0);
  EXPECT_EQ(up.wait().status, 0) << up.errors();
  running_control down(place, {"wait", "--down", name});
  EXPECT_EQ(control(place, {"wait", name, "--up"}).status, 0);
  EXPECT_EQ(control(place, {"stop", name}).status, 0);
  EXPECT_EQ(down.wait().status, 0) << down.errors();
  EXPECT_EQ(control(place, {"wait", "kmc_none"}).status, 1);
  EXPECT_EQ(control(place, {"wait"}).status, 2);
}

TEST(control_wait, takes_patterns) {
  installation place;
  const std::string first = place.add_steady();
  const std::string second = place.add_steady();
  place.start_with({first, second});
  const std::string pattern = first.substr(0, 12) + "*";
  EXPECT_EQ(control(place, {"wait", pattern, "--timeout", "30s"}).status, 0);
  const control_result down = control(place, {"wait", "--down", pattern, "--timeout", "100ms"});
  EXPECT_EQ(down.status, 1);
  EXPECT_TRUE(contains(down.errors, "still running: " + first + ", " + second)) << down.errors;
}

TEST(control_wait, waits_for_more_programs_than_there_is_room_for_descriptors) {
  installation place;
  std::vector<std::string> names;
  for (int i = 0; i < 40; ++i)
    names.push_back(place.add_steady());
  place.start_with(names);
  const descriptor_limit few(40);
  running_control down(place, {"wait", "--down", "*"});
  ASSERT_TRUE(wait_until([&] { return holds_process(down.pid()); }));
  EXPECT_EQ(control(place, {"down"}).status, 0);
  EXPECT_EQ(down.wait().status, 0) << down.errors();
}

TEST(control_wait, sleeps_while_nothing_happens) {
  installation place;
  const std::string name = place.add_steady();
  place.start_with(name);
  running_control wait(place, {"wait", "--down", name});
  const auto switches = [&] {
    return process_table::status_field(wait.pid(), "voluntary_ctxt_switches");
  };
  ASSERT_TRUE(wait_until([&] { return !switches().empty(); }));
  ASSERT_TRUE(wait_until([&] {
    const std::string before = switches();
    return keeps([&] { return switches() == before; });
  }));
}

TEST(control_metrics, are_in_the_text_format) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name), {"kmc_\"odd", "", "stop"}});
  place.start();
  place.wait_running(name);
  ASSERT_TRUE(wait_until([&] { return count(place.log(), "launched") == 1; }));
  const control_result done = control(place, {"metrics"});
  EXPECT_EQ(done.status, 0) << done.errors;
  expect_well_formed(done.output);
  const std::string labels = "{program=\"" + name + "\"}";
  EXPECT_EQ(value_of(done.output, "keelmond_up"), "1");
  EXPECT_EQ(value_of(done.output, "keelmond_program_up" + labels), "1");
  EXPECT_EQ(value_of(done.output, "keelmond_program_wanted" + labels), "1");
  EXPECT_EQ(value_of(done.output, "keelmond_program_up{program=\"kmc_\\\"odd\"}"), "0");
  EXPECT_GT(
      std::atol(value_of(done.output, "keelmond_program_resident_memory_bytes" + labels).c_str()),
      4096);
  EXPECT_EQ(value_of(done.output, "keelmond_program_starts_total"), "1");
  EXPECT_EQ(value_of(done.output, "keelmond_program_ends_total"), "0");
}

TEST(control_metrics, replace_a_file_whole) {
  installation place;
  const std::string file = (place.site() / "keelmond.prom").string();
  const control_result done = control(place, {"metrics", "--textfile", file});
  EXPECT_EQ(done.status, 0) << done.errors;
  EXPECT_EQ(done.output, "");
  expect_well_formed(read_file(file));
  EXPECT_EQ(value_of(read_file(file), "keelmond_up"), "0");
  EXPECT_EQ(control(place, {"metrics", "--textfile", "/nonexistent/file"}).status, 1);
}

TEST(control_metrics, are_valid_for_promtool) {
  if (std::system("command -v promtool >/dev/null") != 0) GTEST_SKIP() << "there is no promtool";
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name), {"kmc_\"odd", "", "stop"}});
  const auto check = [&] {
    write_file(place.site() / "metrics", control(place, {"metrics"}).output);
    const std::string directory = "cd " + place.site().string();
    EXPECT_EQ(std::system((directory + " && promtool check metrics <metrics >out 2>&1").c_str()), 0)
        << place.read("out");
    EXPECT_EQ(place.read("out"), "");
  };
  check();
  place.start();
  place.wait_running(name);
  check();
}
