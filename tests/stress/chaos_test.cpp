#include "tests/stress/support/chaos.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/e2e/support/children.h"
#include "tests/e2e/support/installation.h"
#include "tests/e2e/support/private_namespace.h"
#include "tests/stress/support/small_disk.h"
#include "tests/stress/support/stress.h"
#include "tests/support/log_text.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

/// For how long harm is done; KEELMOND_CHAOS_SECONDS sets it.
seconds duration() {
  const char* given = std::getenv("KEELMOND_CHAOS_SECONDS");
  if (given != nullptr) return seconds(std::atoi(given));
#ifdef __SANITIZE_THREAD__
  return seconds(stress::rounds(600, 4));
#else
  return seconds(stress::rounds(900, 4));
#endif
}

/// The names of the programs that have the state, or of all, but for one.
std::vector<std::string> names(const std::vector<listed_program>& programs,
                               const std::string& without, std::string_view state = "") {
  std::vector<std::string> found;
  for (const listed_program& program : programs) {
    if (program.name != without && (state.empty() || program.state == state)) {
      found.push_back(program.name);
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

/// What the supervisor holds when it only waits.
struct holdings {
  std::size_t descriptors;
  long threads;
  explicit holdings(pid_t pid)
      : descriptors(stress::descriptors(pid).size()),
        threads(stress::status_number(pid, "Threads")) {}
};

bool is_number(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == text.npos;
}

/// Whether a line is one that the supervisor writes, from its beginning to its end.
bool is_whole(std::string_view line) {
  constexpr std::string_view kExited = "exited process PID: ";
  constexpr std::string_view kErrno = "  errno: ";
  if (line == "<time>" || line == "launched sub process PID: <pid> ") return true;
  if (line.starts_with(kExited)) {
    const std::size_t at = line.find(kErrno);
    return at != line.npos && is_number(line.substr(kExited.size(), at - kExited.size())) &&
           is_number(line.substr(at + kErrno.size()));
  }
  return (line.starts_with("access(X_OK) .errno:") && line.ends_with(")")) ||
         (line.starts_with("server.ini: entry svr") && line.ends_with("byte."));
}

/// The lines of the log that are not whole. What is being written at the moment does not count.
std::vector<std::string> broken_lines(const installation& place) {
  std::string log = place.log();
  log.erase(log.rfind('\n') + 1);
  std::vector<std::string> broken;
  for (const std::string& line : lines_of(with_times_and_pids_masked(log))) {
    if (!is_whole(line)) broken.push_back(line);
  }
  return broken;
}

class chaos : public testing::Test {
 protected:
  chaos() : random_(stress::random_numbers()) {}

  void SetUp() override {
    if (!private_namespace::is_inside()) GTEST_SKIP() << "chaos needs a PID namespace";
    for (int i = 0; i < 6; ++i)
      programs_.push_back(place_.entry(place_.add_steady()));
    // These take their time to end.
    for (int i = 0; i < 2; ++i) {
      programs_.push_back(place_.entry(place_.add_script("trap 'sleep 0.1; exit 0' USR2\n" +
                                                         place_.note_start() + place_.stay())));
    }
    // And this one is started again all the time.
    busy_ = place_.add_script("sleep 0.05\n");
    programs_.push_back(place_.entry(busy_));
    disk_ = std::make_unique<stress::small_disk>(place_, "size=4m,mode=0755");
    place_.save(programs_);
    place_.start(stress::by_ordinary_user(place_, {}, stress::fast_binary()));
    for (const listed_program& program : programs_) {
      if (program.name != busy_) place_.wait_running(program.name);
    }
  }

  /// Empties what grows: whoever writes there appends.
  void empty_output() const {
    for (const fs::path& file :
         {place_.site() / "keelmond.log", output("console"), output("errors")})
      fs::resize_file(file, 0);
  }

  void TearDown() override {
    if (!HasFailure()) return;
    std::cout << place_.read("config/server.ini") << place_.errors();
    for (const std::string& line : lines_of(place_.console())) {
      if (line != "Waiting has returned.") std::cout << line << '\n';
    }
  }

  void expect_order(const stress::chaos& harm, const holdings& before) const {
    SCOPED_TRACE(harm.story());
    ASSERT_FALSE(children::status_of(place_.daemon())) << "it has ended: " << place_.errors();
    EXPECT_TRUE(place_.has("run.pid"));
    EXPECT_TRUE(stress::reload(place_));
    expect_programs(harm);
    expect_holdings(before, harm.programs().size() - programs_.size());
    EXPECT_EQ(broken_lines(place_), std::vector<std::string>{});
    for (const auto& item : fs::directory_iterator(place_.site().parent_path()))
      EXPECT_FALSE(item.path().filename().string().starts_with("sanitizer.")) << item.path();
  }

  std::mt19937 random_;
  installation place_;
  std::unique_ptr<stress::small_disk> disk_;
  std::vector<listed_program> programs_;
  std::string busy_;

 private:
  [[nodiscard]] fs::path output(const char* name) const {
    return place_.site().parent_path() / name;
  }

  /// Exactly those run that are to, each once, and their marks tell.
  void expect_programs(const stress::chaos& harm) const {
    const auto all = names(harm.programs(), busy_);
    const auto wanted = names(harm.programs(), busy_, "run");
    const auto is_settled = [&] {
      harm.end_leftovers();
      return stress::running_names(place_, all) == wanted;
    };
    EXPECT_TRUE(
        wait_until([&] { return wait_until(is_settled) && keeps(is_settled); }, stress::patience()))
        << "wanted: " << testing::PrintToString(wanted)
        << "\nrunning: " << testing::PrintToString(stress::running_names(place_, all));
    for (const listed_program& program : harm.programs()) {
      const bool runs = program.state == "run";
      if (program.name == busy_) {
        EXPECT_TRUE(wait_until([&] { return place_.running(busy_).empty() != runs; }));
      } else {
        EXPECT_TRUE(wait_until([&] { return place_.is_live(program.name) == runs; }))
            << program.name << " is marked wrongly: it is to " << program.state;
      }
    }
  }

  void expect_holdings(const holdings& before, std::size_t added) const {
    EXPECT_TRUE(wait_until([&] {
      const holdings now(place_.daemon());
      return now.descriptors == before.descriptors &&
             now.threads <= before.threads + static_cast<long>(added);
    })) << "descriptors: "
        << before.descriptors << ", then " << holdings(place_.daemon()).descriptors
        << "; threads: " << before.threads << ", then " << holdings(place_.daemon()).threads
        << ", programs added: " << added;
  }
};

}  // namespace

TEST_F(chaos, leaves_everything_as_the_file_says) {
  stress::chaos harm(place_, *disk_, programs_, random_);
  place_.wait_watching();
  const holdings before(place_.daemon());
  const auto end = steady_clock::now() + duration();
  int phases = 0;
  do {
    empty_output();
    harm.forget();
    for (int acts = stress::between(random_, 10, 60); acts > 0; --acts) {
      harm.harm();
      stress::sleep_ms(stress::between(random_, 0, 20));
    }
    harm.repair();
    expect_order(harm, before);
    ++phases;
  } while (steady_clock::now() < end && !HasFailure());
  std::cout << phases << " phases, " << harm.programs().size() << " programs\n";
  if (!HasFailure()) stress::expect_clean_end(place_);
}
