#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/installation.h"

namespace fs = std::filesystem;

namespace {

/// How many programs: a few with every run, a thousand on request.
std::size_t how_many() {
  const char* const form = std::getenv("KEELMOND_STRESS");
  return form != nullptr && std::string_view(form) == "long" ? 1000 : 30;
}

}  // namespace

TEST(control_many, programs_come_up_are_seen_are_steered_and_go_down) {
  installation place;
  const std::size_t count = how_many();
  const std::string first = place.add_steady();
  std::vector<listed_program> programs = {place.entry(first)};
  const std::string all = std::to_string(count);
  // One file under many names.
  for (std::size_t i = 1; i < count; ++i) {
    // All equally long, so that none is part of another.
    const std::string name = ("m" + first).substr(0, 10) + std::to_string(1000 + i);
    fs::create_hard_link(place.entry(first).exepath, place.entry(name).exepath);
    programs.push_back(place.entry(name));
  }
  const std::string last = programs.back().name;
  place.save(programs);
  const control_result up = control(place, {"up", "--timeout", "60s"});
  ASSERT_EQ(up.status, 0) << up.errors;
  EXPECT_TRUE(contains(up.output, all + " of " + all + " programs")) << up.output;
  EXPECT_TRUE(contains(control(place, {"status"}).output, ": " + all + " running\n"));
  const control_result restart = control(place, {"restart", last, "--timeout", "60s"});
  EXPECT_EQ(restart.status, 0) << restart.errors;
  const control_result stop = control(place, {"stop", last, "--timeout", "60s"});
  EXPECT_EQ(stop.status, 0) << stop.errors;
  const control_result down = control(place, {"down", "--timeout", "100s"});
  EXPECT_EQ(down.status, 0) << down.errors;
  EXPECT_EQ(daemon_of(place), 0);
  for (const listed_program& program : programs)
    EXPECT_EQ(place.starts(program.name), program.name == last ? 2U : 1U);
  EXPECT_TRUE(place.processes().empty());
}
