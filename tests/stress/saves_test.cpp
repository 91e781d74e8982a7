#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>
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
std::string marked(std::vector<listed_program> programs, std::size_t number) {
  programs.push_back({"mark" + std::to_string(number), "/bin/true", "stop"});
  return server_ini(programs);
}

bool wait_applied(const installation& place, std::size_t number) {
  const std::string line = "monitor mark" + std::to_string(number) + " stopped 333.";
  return wait_until([&] { return place.console().find(line) != std::string::npos; });
}

/// Saves as an editor does: empties the file, and writes it a moment later.
/// @param in_parts writes the second half of it another moment later.
/// @return whether that moment was as short as it was meant to be. On a busy machine half a file
///         can lie there for as long as a whole one would have to.
bool save_in_place(const installation& place, const std::string& text, int delay, bool in_parts) {
  const std::string path = (place.site() / "config" / "server.ini").string();
  const unique_fd file(::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  if (delay > 0) stress::sleep_ms(delay);
  const auto written = [&](std::size_t from, std::size_t to) {
    return ::write(file.get(), text.data() + from, to - from) == static_cast<ssize_t>(to - from);
  };
  if (!in_parts) {
    EXPECT_TRUE(written(0, text.size()));
    return true;
  }
  const auto half = std::chrono::steady_clock::now();
  EXPECT_TRUE(written(0, text.size() / 2));
  stress::sleep_ms(delay);
  EXPECT_TRUE(written(text.size() / 2, text.size()));
  return std::chrono::steady_clock::now() - half < std::chrono::milliseconds(40);
}

}  // namespace

TEST(saves, in_place_are_taken_whole) {
  auto random = stress::random_numbers();
  installation place;
  const std::vector<listed_program> programs{place.entry(place.add_steady())};
  place.save(marked(programs, 0));
  place.start(stress::fast());
  ASSERT_TRUE(wait_applied(place, 0));
  const auto saves = static_cast<std::size_t>(rounds(1000, 30));
  std::size_t delayed = 0;
  for (std::size_t i = 1, paused = 0; i <= saves; ++i) {
    ASSERT_TRUE(stress::wait_armed(place, paused));
    paused = stress::pauses(place) + 1;
    const int delay = i % 4 == 0 ? 0 : between(random, 0, 20);
    if (!save_in_place(place, marked(programs, i), delay, i % 3 == 0)) {
      ++delayed;
      place.signal(SIGUSR1);
    }
    ASSERT_TRUE(wait_applied(place, i)) << "save " << i << ", " << delay << " ms";
  }
  EXPECT_LT(delayed, saves / 2) << "the machine is too busy";
  if (delayed == 0) {
    EXPECT_EQ(place.loads(), saves + 1) << "one reload for each";
    EXPECT_EQ(count(place.console(), "read ini file mark"), saves + 1) << "none of half a file";
  }
  stress::expect_clean_end(place);
}

TEST(saves, in_place_that_never_end_are_reloaded_all_the_same) {
  installation place;
  place.save(marked({}, 0));
  place.start(stress::fast());
  const std::string path = (place.site() / "config" / "server.ini").string();
  const unique_fd file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  // Written so often that the file is never quiet, not even on a busy machine.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(6);
  while (place.loads() < 2 && std::chrono::steady_clock::now() < end) {
    for (int i = 0; i < 20; ++i) {
      ASSERT_EQ(::write(file.get(), ";\n", 2), 2);
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }
  EXPECT_GE(place.loads(), 2U);
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
  const auto saves = static_cast<std::size_t>(rounds(400, 30));
  for (std::size_t i = 1; i <= saves; ++i) {
    ASSERT_TRUE(stress::wait_armed(place, i - 1));
    place.save(marked(programs, i) + more);
    // Programs that are started while the file is being read, and then stay.
    const std::string& restarted = steady[static_cast<std::size_t>(between(random, 0, 5))];
    for (const pid_t pid : place.running(restarted))
      ::kill(pid, SIGKILL);
    ASSERT_TRUE(wait_applied(place, i)) << "save " << i;
  }
  EXPECT_EQ(place.loads(), saves + 1);
  EXPECT_TRUE(stress::settles(place, steady, steady));
  stress::expect_clean_end(place);
}
