#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/e2e/support/installation.h"
#include "tests/e2e/support/private_namespace.h"
#include "tests/stress/support/stress.h"
#include "tests/support/wait_until.h"

using stress::between;
using stress::rounds;

namespace {

/// A configuration that changes, and what has become of it.
class changing_list {
 public:
  changing_list(installation& place, int programs) : place_(place) {
    for (int i = 0; i < programs; ++i)
      add();
  }

  void add() { entries_.push_back(place_.entry(place_.add_steady())); }

  void change(std::mt19937& random) {
    listed_program& any = entries_[static_cast<std::size_t>(
        between(random, 0, static_cast<int>(entries_.size()) - 1))];
    const auto stopped = std::count_if(entries_.begin(), entries_.end(),
                                       [](const auto& entry) { return entry.state == "stop"; });
    any.state = any.state == "run" && stopped < 3 ? "stop" : "run";
  }

  /// Every third one stands in the file twice.
  [[nodiscard]] std::string text() const {
    std::vector<listed_program> listed = entries_;
    for (std::size_t i = 0; i < entries_.size(); i += 3)
      listed.push_back(entries_[i]);
    return server_ini(listed);
  }

  void save(bool in_place) const {
    if (in_place) {
      write_file(place_.site() / "config" / "server.ini", text());
    } else {
      place_.save(text());
    }
  }

  [[nodiscard]] std::vector<std::string> names(const std::string& state = "") const {
    std::vector<std::string> found;
    for (const listed_program& entry : entries_) {
      if (state.empty() || entry.state == state) found.push_back(entry.name);
    }
    return found;
  }

 private:
  installation& place_;
  std::vector<listed_program> entries_;
};

void end_some(const installation& place, const changing_list& list, std::mt19937& random) {
  const auto names = list.names();
  for (const auto& process : place.processes()) {
    if (between(random, 0, 9) == 0 &&
        std::find(names.begin(), names.end(), process.name) != names.end()) {
      ::kill(process.pid, between(random, 0, 1) == 0 ? SIGKILL : SIGUSR2);
    }
  }
}

void rage(const installation& place, changing_list& list, std::mt19937& random) {
  const int signals = rounds(5000, 200);
  for (int i = 0; i < signals; ++i) {
    place.signal(SIGUSR1);
    if (i % 10 == 0) end_some(place, list, random);
    if (i % 25 == 0 && private_namespace::is_inside()) {
      EXPECT_EQ(std::system("pkill -USR1 -x keelmond"), 0);
    }
    if (i % 20 == 0) {
      list.change(random);
      if (i % 100 == 0) list.add();
      list.save(between(random, 0, 1) == 0);
    }
    stress::sleep_ms(between(random, 0, 4));
  }
}

}  // namespace

TEST(storm, leaves_every_program_running_once_and_the_list_as_the_file_says) {
  auto random = stress::random_numbers();
  installation place;
  changing_list list(place, rounds(50, 10));
  list.save(false);
  place.start(stress::fast());

  rage(place, list, random);
  EXPECT_TRUE(stress::reload(place));

  EXPECT_TRUE(stress::settles(place, list.names(), list.names("run")));
  EXPECT_EQ(stress::launches(place), stress::ends(place) + list.names("run").size());
  EXPECT_EQ(place.daemons(), std::vector<pid_t>{place.daemon()});

  stress::expect_clean_end(place);

  // Reloads stop only what the file wants to be stopped. The shutdown stops all others, each once.
  const std::string console = place.console();
  const std::string last = console.substr(console.rfind("loadServerConfig : "));
  for (const std::string& name : list.names("run"))
    EXPECT_EQ(count(last, "kill -USR2 result: kill -USR2 `pgrep " + name + "`"), 1U) << name;
  EXPECT_EQ(stress::launches(place), stress::ends(place));
}

TEST(storm, of_shutdown_signals_by_name_stops_everything) {
  if (!private_namespace::is_inside()) GTEST_SKIP() << "signals by name need a PID namespace";
  for (int i = 0; i < rounds(100, 4) && !HasFailure(); ++i) {
    installation place;
    const changing_list list(place, 8);
    list.save(false);
    place.start();
    EXPECT_TRUE(wait_until([&] { return stress::launches(place) == 8; }));
    EXPECT_EQ(std::system("pkill -USR2 -x keelmond"), 0);
    EXPECT_EQ(place.wait_end(), 0);
    EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
    EXPECT_TRUE(place.log().ends_with(golden::kClosed));
    EXPECT_EQ(stress::launches(place), stress::ends(place));
    EXPECT_EQ(stress::stopped_names(place), list.names()) << "by nobody but the supervisor";
    EXPECT_FALSE(place.has("run.pid"));
  }
}
