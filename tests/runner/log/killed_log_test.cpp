#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "runner/log/rotating_file.h"
#include "tests/runner/log/log_place.h"
#include "tests/support/in_child.h"
#include "tests/support/wait_until.h"

using runner::own_lines;
using runner::rotated_name;
using runner::rotating_file;

namespace {

constexpr int kKills = 6;

runner::log_settings compressed_settings(const log_place& place) {
  runner::log_settings settings = place.settings(20'000);
  settings.compress = true;
  return settings;
}

void await_compressors(rotating_file& file) {
  while (const pid_t child = file.rotated().compressor()) {
    int status = 0;
    ::waitpid(child, &status, 0);
    file.rotated().on_child_end(child, status);
  }
}

std::string numbered(int number) {
  return "line " + std::to_string(number) + " ends here";
}

/// Writes numbered lines in pieces that end anywhere, for as long as it lives.
[[noreturn]] void write_until_killed(const log_place& place, int first) {
  own_lines messages;
  rotating_file file(place.path(), compressed_settings(place), nullptr, messages);
  std::string text;
  for (int number = first;; ++number) {
    text += numbered(number) + '\n';
    if (text.size() < 5000) continue;
    file.write(std::string_view(text).substr(0, 5000));
    text.erase(0, 5000);
    int status = 0;
    const pid_t ended = ::waitpid(-1, &status, WNOHANG);
    if (ended > 0) file.rotated().on_child_end(ended, status);
  }
}

/// What of `text` are whole lines, in which order, and how many are not.
struct found_lines {
  explicit found_lines(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      const int number = std::atoi(line.substr(std::min<std::size_t>(line.size(), 5)).c_str());
      if (line == numbered(number))
        numbers.push_back(number);
      else
        ++torn;
    }
  }
  std::vector<int> numbers;
  int torn = 0;
};

}  // namespace

TEST(killed_log, goes_on_wherever_it_was_killed) {
  in_child([] {
    const log_place place;
    int next = 1'000'000;
    for (int kill = 0; kill < kKills; ++kill, next += 1'000'000) {
      const std::size_t before = place.rotated().size();
      const pid_t writer = ::fork();
      ASSERT_GE(writer, 0);
      if (writer == 0) write_until_killed(place, next);
      // Each is killed at another place of what it does.
      EXPECT_TRUE(wait_until([&] { return place.rotated().size() > before + 2; }));
      ::usleep(static_cast<useconds_t>(700 * kill));
      ::kill(writer, SIGKILL);
      ASSERT_EQ(::waitpid(writer, nullptr, 0), writer);
    }
    own_lines messages;
    rotating_file file(place.path(), compressed_settings(place), nullptr, messages);
    await_compressors(file);
    EXPECT_TRUE(messages.empty()) << messages.take();
    for (const rotated_name& name : place.rotated())
      EXPECT_EQ(name.what, rotated_name::kind::compressed);
    const found_lines found(place.everything());
    EXPECT_LE(found.torn, kKills);
    EXPECT_TRUE(std::is_sorted(found.numbers.begin(), found.numbers.end()));
    EXPECT_EQ(std::adjacent_find(found.numbers.begin(), found.numbers.end()), found.numbers.end());
    // Nothing is missing between two kills.
    const auto gaps = std::count_if(found.numbers.begin() + 1, found.numbers.end(),
                                    [previous = found.numbers.front()](int number) mutable {
                                      return std::exchange(previous, number) + 1 != number;
                                    });
    EXPECT_EQ(gaps, kKills - 1);
  });
}
