#include "runner/supervise/pacing.h"

#include <gtest/gtest.h>

#include <vector>

using namespace std::chrono_literals;
using runner::milliseconds;
using runner::pacing;

namespace {

/// Lives after each other.
class lives final {
 public:
  explicit lives(const runner::restart_section& wanted) { pacing_.set(wanted); }

  pacing::verdict live(milliseconds duration) { return pacing_.ended(duration); }
  pacing::verdict fail() { return pacing_.ended({}); }
  [[nodiscard]] std::uint64_t failures() const { return pacing_.failures(); }

 private:
  pacing pacing_;
};

runner::restart_section wanted(milliseconds delay, milliseconds longest, milliseconds steady) {
  runner::restart_section section;
  section.delay = delay;
  section.longest = longest;
  section.steady = steady;
  return section;
}

}  // namespace

TEST(pacing, the_pause_doubles_up_to_the_longest) {
  lives program(wanted(200ms, 3s, 10s));
  std::vector<milliseconds> pauses;
  for (int i = 0; i < 7; ++i)
    pauses.push_back(program.live(9999ms).pause);
  EXPECT_EQ(pauses, (std::vector<milliseconds>{200ms, 400ms, 800ms, 1600ms, 3s, 3s, 3s}));
  EXPECT_EQ(program.failures(), 7U);
}

TEST(pacing, one_steady_life_brings_the_first_pause_back) {
  lives program(wanted(200ms, 60s, 10s));
  for (int i = 0; i < 5; ++i)
    program.live(0ms);
  EXPECT_EQ(program.live(10s).pause, 200ms);
  EXPECT_EQ(program.failures(), 0U);
  EXPECT_EQ(program.live(0ms).pause, 200ms);
  EXPECT_EQ(program.live(0ms).pause, 400ms);
}

TEST(pacing, without_a_delay_only_the_first_start_comes_at_once) {
  lives program(wanted(0ms, 60s, 10s));
  EXPECT_EQ(program.live(0ms).pause, 0ms);
  EXPECT_EQ(program.live(0ms).pause, 100ms);
  EXPECT_EQ(program.live(0ms).pause, 200ms);
}

TEST(pacing, a_longest_pause_of_nothing_is_no_hot_loop) {
  lives program(wanted(0ms, 0ms, 10s));
  program.live(0ms);
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(program.live(0ms).pause, 50ms);
}

TEST(pacing, a_hundred_failures_do_not_overflow) {
  lives program(wanted(1ms, std::chrono::hours(24 * 365), 10s));
  milliseconds last{0};
  for (int i = 0; i < 100; ++i)
    last = program.live(0ms).pause;
  EXPECT_EQ(last, std::chrono::hours(24 * 365));
}

TEST(pacing, gives_up_after_so_many_short_lives_in_a_row) {
  runner::restart_section section = wanted(1ms, 60s, 10s);
  section.give_up = 3;
  lives program(section);
  EXPECT_FALSE(program.live(0ms).give_up);
  EXPECT_FALSE(program.live(0ms).give_up);
  EXPECT_FALSE(program.live(10s).give_up);
  EXPECT_FALSE(program.live(0ms).give_up);
  EXPECT_FALSE(program.live(0ms).give_up);
  EXPECT_TRUE(program.live(0ms).give_up);
}

TEST(pacing, what_was_not_executed_has_not_lived_however_little_is_asked_for) {
  lives program(wanted(1ms, 60s, 0ms));
  program.fail();
  EXPECT_EQ(program.fail().pause, 100ms);
  EXPECT_EQ(program.fail().pause, 200ms);
  EXPECT_EQ(program.live(100ms).pause, 1ms);
}

TEST(pacing, lives_that_are_steady_however_short_they_are_do_not_begin_in_a_hot_loop) {
  lives program(wanted(0ms, 60s, 0ms));
  EXPECT_EQ(program.live(0ms).pause, 100ms);
  EXPECT_EQ(program.live(30ms).pause, 70ms);
  EXPECT_EQ(program.live(100ms).pause, 0ms);
  EXPECT_EQ(program.live(1h).pause, 0ms);
  EXPECT_EQ(program.failures(), 0U);
}
