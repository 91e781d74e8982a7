#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/e2e/support/children.h"
#include "tests/e2e/support/installation.h"
#include "tests/stress/support/stress.h"
#include "tests/support/golden.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;
using stress::rounds;

namespace {

/// Lets processes go on at the same moment.
class gate final {
 public:
  gate() {
    void* const memory = ::mmap(nullptr, sizeof(std::atomic<bool>), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap");
    open_ = new (memory) std::atomic<bool>(false);
  }
  gate(const gate&) = delete;
  gate& operator=(const gate&) = delete;
  ~gate() { ::munmap(open_, sizeof(std::atomic<bool>)); }

  void open() { open_->store(true); }
  void wait() const {
    while (!open_->load())
      ::sched_yield();
  }

 private:
  std::atomic<bool>* open_;
};

/// Starts the supervisor `many` times at the same moment and waits until all but daemons are gone.
void start_together(const installation& place, int many) {
  gate start;
  std::vector<pid_t> starters;
  for (int i = 0; i < many; ++i)
    starters.push_back(place.spawn({.before_exec = [&start] { start.wait(); }}));
  start.open();
  for (const pid_t starter : starters)
    EXPECT_EQ(children::wait_for_end(starter), 0);
}

/// Ends daemons that no `start` knows of.
void end_all(const std::vector<pid_t>& daemons) {
  for (const pid_t daemon : daemons) {
    ::kill(daemon, SIGUSR2);
    EXPECT_EQ(children::wait_for_end(daemon), 0);
  }
}

void expect_one_of(int many) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  start_together(place, many);
  place.wait_running(name);
  EXPECT_EQ(count(place.console(), golden::kAnotherInstance), static_cast<std::size_t>(many) - 1);
  EXPECT_EQ(place.loads(), 1U);
  // It has more than one parent until the process in between has ended.
  EXPECT_TRUE(wait_until([&] { return place.daemons().size() == 1; }));
  const auto daemons = place.daemons();
  end_all(daemons);
  EXPECT_FALSE(place.has("run.pid"));
  EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
}

}  // namespace

TEST(start_race, leaves_one_daemon_of_two) {
  for (int i = 0; i < rounds(200, 20) && !HasFailure(); ++i)
    expect_one_of(2);
}

TEST(start_race, leaves_one_daemon_of_five) {
  for (int i = 0; i < rounds(200, 20) && !HasFailure(); ++i)
    expect_one_of(5);
}

TEST(start_race, adds_one_daemon_when_the_pid_file_was_deleted) {
  for (int i = 0; i < rounds(100, 10) && !HasFailure(); ++i) {
    installation place;
    place.start();
    const std::size_t loads = place.loads();
    fs::remove(place.site() / "run.pid");
    start_together(place, 3);
    EXPECT_TRUE(wait_until([&] { return place.loads() > loads && place.daemons().size() == 2; }));
    EXPECT_EQ(place.loads(), loads + 1);
    EXPECT_EQ(count(place.console(), golden::kAnotherInstance), 2U);
    end_all(place.daemons());
  }
}

TEST(start_race, takes_over_from_a_daemon_that_is_just_shutting_down) {
  for (int i = 0; i < rounds(100, 8) && !HasFailure(); ++i) {
    installation place;
    const std::string name = place.add_steady();
    place.start_with(name);
    place.signal(SIGUSR2);
    std::vector<pid_t> others;
    // Refused for as long as the pid file is there, and not a moment longer.
    EXPECT_TRUE(wait_until([&] {
      EXPECT_EQ(place.run(), 0);
      others = place.daemons();
      std::erase(others, place.daemon());
      return !others.empty();
    }));
    EXPECT_EQ(place.wait_end(), 0);
    place.wait_running(name, 2);
    EXPECT_EQ(others.size(), 1U);
    end_all(others);
  }
}
