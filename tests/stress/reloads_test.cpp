#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/e2e/support/installation.h"
#include "tests/stress/support/stress.h"
#include "tests/support/wait_until.h"

using stress::rounds;

namespace {

/// The console's lines that belong to loads.
std::vector<std::string> load_lines(const installation& place) {
  std::vector<std::string> lines;
  for (const std::string& line : lines_of(place.console())) {
    // The first load's line follows the log's path, which has no line end.
    const std::size_t load = line.find("loadServerConfig : ");
    if (load != std::string::npos) lines.push_back(line.substr(load));
    if (line.starts_with("read ini file ")) lines.push_back(line);
  }
  return lines;
}

/// A configuration that takes a while to load, and programs that keep the monitors busy.
std::vector<listed_program> long_list(installation& place) {
  std::vector<listed_program> list;
  for (int i = 0; i < 5; ++i)
    list.push_back(place.entry(place.add_script("exit 0\n")));
  for (int i = 0; i < 500 / stress::kSlower; ++i)
    list.push_back({"missing" + std::to_string(i), "/nonexistent/program", "run"});
  return list;
}

}  // namespace

TEST(reloads, run_one_at_a_time_and_each_to_its_end) {
  auto random = stress::random_numbers();
  installation place;
  const auto list = long_list(place);
  place.save(list);
  place.start(stress::fast());
  for (int i = 0; i < rounds(3000, 150); ++i) {
    place.signal(SIGUSR1);
    if (i % 20 == 0) place.save(list);
    stress::sleep_ms(stress::between(random, 0, 10));
  }
  EXPECT_TRUE(stress::reload(place));
  stress::expect_clean_end(place);

  const auto lines = load_lines(place);
  ASSERT_EQ(lines.size(), place.loads() * (list.size() + 1));
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::size_t part = i % (list.size() + 1);
    ASSERT_EQ(lines[i], part == 0 ? "loadServerConfig : ./config/server.ini"
                                  : "read ini file " + list[part - 1].name + " ");
  }
}

TEST(reloads, follow_every_signal) {
  installation place;
  place.save(long_list(place));
  place.start();
  stress::load_count loads(place);
  for (int i = 0; i < rounds(2000, 100); ++i) {
    const std::size_t before = loads.now();
    place.signal(SIGUSR1);
    ASSERT_TRUE(wait_until([&] { return loads.now() > before; })) << "signal " << i;
  }
  stress::expect_clean_end(place);
}

TEST(reloads, start_a_program_once_that_is_listed_twice) {
  for (int i = 0; i < rounds(200, 8) && !HasFailure(); ++i) {
    installation place;
    std::vector<listed_program> list;
    std::vector<std::string> names;
    for (int program = 0; program < 4; ++program) {
      names.push_back(place.add_steady());
      list.push_back(place.entry(names.back()));
      list.push_back(list.back());
      list.push_back(list.back());
    }
    place.save(list);
    place.start();
    // And again while the threads have not got as far as to fork.
    place.signal(SIGUSR1);
    for (const std::string& name : names)
      place.wait_running(name);
    const auto launched_once = [&] { return stress::launches(place) == names.size(); };
    EXPECT_TRUE(wait_until(launched_once));
    EXPECT_TRUE(keeps(launched_once, std::chrono::milliseconds(100)));
    stress::expect_clean_end(place);
    EXPECT_EQ(stress::stopped_names(place), names);
  }
}
