#include "process/monitor_phase.h"

#include <gtest/gtest.h>

namespace {

TEST(monitor_phase, gives_a_monitor_one_thread_only) {
  monitor_phase phase;
  EXPECT_TRUE(phase.claim());
  EXPECT_FALSE(phase.claim());
  phase.launch();
  EXPECT_FALSE(phase.claim());
  phase.run();
  EXPECT_FALSE(phase.claim());
  phase.rest();
  EXPECT_FALSE(phase.claim());
  phase.end();
  EXPECT_FALSE(phase.claim()) << "one that has ended is final";
}

TEST(monitor_phase, a_thread_that_could_not_be_created_may_be_claimed_again) {
  monitor_phase phase;
  EXPECT_TRUE(phase.claim());
  phase.give_back();
  EXPECT_TRUE(phase.claim());
}

TEST(monitor_phase, tells_a_launch_from_a_program_that_runs) {
  monitor_phase phase;
  const auto expect = [&](bool launching, bool running) {
    EXPECT_EQ(phase.is_launching(), launching);
    EXPECT_EQ(phase.is_running(), running);
  };
  expect(false, false);
  phase.claim();
  expect(false, false);
  phase.launch();
  expect(true, false);
  phase.run();
  expect(false, true);
  phase.rest();
  expect(false, false);
  phase.launch();
  phase.rest();
  expect(false, false);
  phase.end();
  expect(false, false);
}

TEST(monitor_phase, counts_the_time_from_the_last_launch) {
  using clock = monitor_phase::clock;
  monitor_phase phase;
  for (int i = 0; i < 2; ++i) {
    const auto before = clock::now();
    phase.run();
    const auto running = phase.running_for();
    EXPECT_LE(running, clock::now() - before);
    EXPECT_GE(running, clock::duration::zero());
  }
}

}  // namespace
