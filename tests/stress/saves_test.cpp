#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "common/misc/unique_fd.h"
#include "tests/e2e/support/installation.h"
#include "tests/stress/support/stress.h"
#include "tests/support/wait_until.h"

using stress::between;
using stress::rounds;

namespace {

/// Lines that make reading the file take a while.
std::string padding(int kilobytes) {
  std::string text;
  while (text.size() < static_cast<std::size_t>(kilobytes) * 1024)
    text += "; nothing to be seen here, and a lot of it, so that reading takes its time\n";
  return text;
}

/// A configuration that loading answers with a line of its own on the console.
std::string marked(std::vector<listed_program> programs, int number) {
  programs.push_back({"mark" + std::to_string(number), "/bin/true", "stop"});
  return installation::ini(programs);
}

bool wait_applied(const installation& place, int number) {
  const std::string line = "monitor mark" + std::to_string(number) + " stopped 333.";
  return wait_until([&] { return place.console().find(line) != std::string::npos; });
}

/// Saves as an editor does: empties the file, and writes it a moment later.
void save_in_place(const installation& place, const std::string& text, int delay) {
  const std::string path = (place.site() / "config" / "server.ini").string();
  const unique_fd file(::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  if (delay > 0) stress::sleep_ms(delay);
  // The second half a little later than the first.
  const std::size_t half = delay % 2 == 0 ? text.size() : text.size() / 2;
  EXPECT_EQ(::write(file.get(), text.data(), half), static_cast<ssize_t>(half));
  if (half < text.size()) stress::sleep_ms(delay);
  EXPECT_EQ(::write(file.get(), text.data() + half, text.size() - half),
            static_cast<ssize_t>(text.size() - half));
}

}  // namespace

TEST(saves, in_place_are_taken_whole) {
  auto random = stress::random_numbers();
  installation place;
  const std::vector<listed_program> programs{place.entry(place.add_steady())};
  place.save(marked(programs, 0));
  place.start(stress::fast());
  ASSERT_TRUE(wait_applied(place, 0));
  const int saves = rounds(1000, 30);
  for (int i = 1; i <= saves; ++i) {
    ASSERT_TRUE(stress::wait_armed(place, static_cast<std::size_t>(i - 1)));
    const int delay = i % 4 == 0 ? 0 : between(random, 0, 20);
    save_in_place(place, marked(programs, i), delay);
    ASSERT_TRUE(wait_applied(place, i)) << "save " << i << ", " << delay << " ms";
  }
  EXPECT_EQ(place.loads(), static_cast<std::size_t>(saves) + 1) << "one reload for each";
  EXPECT_EQ(count(place.console(), "read ini file mark"), static_cast<std::size_t>(saves) + 1)
      << "none of half a file";
  stress::expect_clean_end(place);
}

TEST(saves, in_place_that_never_end_are_reloaded_all_the_same) {
  installation place;
  place.save(marked({}, 0));
  place.start(stress::fast());
  const std::string path = (place.site() / "config" / "server.ini").string();
  const unique_fd file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  const auto written = [&] {
    EXPECT_EQ(::write(file.get(), ";\n", 2), 2);
    return place.loads() >= 2;
  };
  EXPECT_TRUE(wait_until(written));
  stress::expect_clean_end(place);
}

TEST(saves, by_rename_are_all_seen_while_programs_are_started) {
  auto random = stress::random_numbers();
  installation place;
  std::vector<listed_program> programs;
  for (int i = 0; i < 3; ++i)
    programs.push_back(place.entry(place.add_script("exit 0\n")));
  std::vector<std::string> steady;
  for (int i = 0; i < 6; ++i) {
    steady.push_back(place.add_steady());
    programs.push_back(place.entry(steady.back()));
  }
  const std::string more = padding(256);
  place.save(marked(programs, 0) + more);
  place.start(stress::fast());
  const int saves = rounds(400, 30);
  for (int i = 1; i <= saves; ++i) {
    ASSERT_TRUE(stress::wait_armed(place, static_cast<std::size_t>(i - 1)));
    place.save(marked(programs, i) + more);
    // Programs that are started while the file is being read, and then stay.
    const std::string& restarted = steady[static_cast<std::size_t>(between(random, 0, 5))];
    for (const pid_t pid : place.running(restarted))
      ::kill(pid, SIGKILL);
    ASSERT_TRUE(wait_applied(place, i)) << "save " << i;
  }
  EXPECT_EQ(place.loads(), static_cast<std::size_t>(saves) + 1);
  EXPECT_TRUE(stress::settles(place, steady, steady));
  stress::expect_clean_end(place);
}
