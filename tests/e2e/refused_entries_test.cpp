#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tests/e2e/golden.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace {

/// Starts with the refused entry before one that is in order, which has to run all the same.
void expect_refused(installation& place, const listed_program& refused, const std::string& shown,
                    const std::string& key, const std::string& limit) {
  const listed_program good = place.entry(place.add_steady());
  place.save({refused, good});
  place.start();
  place.wait_running(good.name);
  expect_log(place, std::string(golden::kLogStart) + "server.ini: entry svr1 (" + shown +
                        ") refused: " + key + " is longer than " + limit +
                        " bytes or holds a NUL byte.\r\n<time>\r\n" + golden::kLaunched);
  EXPECT_EQ(count(place.console(), "Start 333."), 1U);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
}

/// A path of exactly `length` bytes to a program, with missing directories made.
fs::path path_of(const installation& place, const std::string& name, std::size_t length) {
  fs::path path = place.site() / "programs";
  const std::size_t end = name.size() + 1;
  while (path.string().size() + end < length) {
    const std::size_t left = length - path.string().size() - end;
    // A step is a "/" and at least one byte.
    path /= std::string(left > 102 ? 100 : left - 1, 'd');
  }
  fs::create_directories(path);
  return path / name;
}

}  // namespace

TEST(refused_entries, with_a_name_of_128_bytes) {
  installation place;
  listed_program program = place.entry(place.add_steady());
  program.name = std::string(128, 'n');
  expect_refused(place, program, "", "svr1", "127");
}

TEST(refused_entries, with_a_path_of_512_bytes) {
  installation place;
  listed_program program = place.entry(place.add_steady());
  const fs::path path = path_of(place, program.name, 512);
  fs::rename(program.exepath, path);
  program.exepath = path.string();
  ASSERT_EQ(program.exepath.size(), 512U);
  expect_refused(place, program, program.name, "exepath", "511");
}

TEST(refused_entries, with_a_state_of_128_bytes) {
  installation place;
  const std::string name = place.add_steady();
  expect_refused(place, place.entry(name, "run" + std::string(125, ' ') + "x"), name, "state",
                 "127");
}

TEST(refused_entries, with_a_nul_byte_in_the_name) {
  installation place;
  listed_program program = place.entry(place.add_steady());
  program.name += std::string("\0x", 2);
  expect_refused(place, program, "", "svr1", "127");
}

TEST(refused_entries, with_a_nul_byte_in_the_path) {
  installation place;
  listed_program program = place.entry(place.add_steady());
  program.exepath += std::string("\0x", 2);
  expect_refused(place, program, program.name, "exepath", "511");
}

TEST(refused_entries, with_a_nul_byte_in_the_state) {
  installation place;
  const std::string name = place.add_steady();
  expect_refused(place, place.entry(name, std::string("run\0x", 5)), name, "state", "127");
}

TEST(refused_entries, are_none_at_the_limits) {
  installation place;
  const std::string script = place.add_steady();
  const fs::path path = path_of(place, script, 511);
  fs::rename(place.entry(script).exepath, path);
  const std::string longest_name(127, 'n');
  const std::string other = place.add_steady();
  place.save({{longest_name, path.string()}, place.entry(other, std::string(127, 's'))});
  place.start();
  place.wait_running(script);
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched);
  EXPECT_TRUE(place.is_live(longest_name));
  EXPECT_EQ(place.console(), golden::console_start(place) + golden::kLoad +
                                 golden::started(longest_name) + golden::read_entry(other));
}
