#include "process/shutdown_gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <thread>
#include <vector>

#include "tests/support/in_child.h"
#include "tests/support/wait_until.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(shutdown_gate, is_open_and_empty_at_first) {
  const shutdown_gate gate;
  EXPECT_TRUE(gate.may_launch());
  EXPECT_TRUE(gate.wait_until_empty(milliseconds(0)));
}

TEST(shutdown_gate, counts_who_is_inside) {
  shutdown_gate gate;
  gate.admit();
  gate.admit();
  EXPECT_FALSE(gate.wait_until_empty(milliseconds(0)));
  gate.dismiss();
  EXPECT_FALSE(gate.wait_until_empty(milliseconds(0)));
  gate.dismiss();
  EXPECT_TRUE(gate.wait_until_empty(milliseconds(0)));
}

TEST(shutdown_gate, whoever_waits_for_something_is_outside_meanwhile) {
  shutdown_gate gate;
  gate.admit();
  {
    const shutdown_gate::outside waiting(gate);
    EXPECT_TRUE(gate.wait_until_empty(milliseconds(0)));
  }
  EXPECT_FALSE(gate.wait_until_empty(milliseconds(0)));
  gate.dismiss();
}

TEST(shutdown_gate, gives_up_waiting_at_the_limit) {
  shutdown_gate gate;
  gate.admit();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(gate.wait_until_empty(milliseconds(5)));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(5));
}

TEST(shutdown_gate, waits_until_the_last_one_is_out) {
  shutdown_gate gate;
  gate.admit();
  std::atomic<bool> out{false};
  std::thread slow([&] {
    std::this_thread::sleep_for(milliseconds(5));
    out = true;
    gate.dismiss();
  });
  EXPECT_TRUE(gate.wait_until_empty(seconds(20)));
  EXPECT_TRUE(out);
  slow.join();
}

TEST(shutdown_gate, when_launches_are_forbidden_threads_still_come_and_go) {
  shutdown_gate gate;
  gate.admit();
  gate.forbid_launches();
  EXPECT_FALSE(gate.may_launch());
  { const shutdown_gate::outside waiting(gate); }
  gate.dismiss();
  EXPECT_TRUE(gate.wait_until_empty(milliseconds(0)));
}

TEST(shutdown_gate, forbidding_launches_does_not_open_a_closed_gate) {
  in_child([] {
    static shutdown_gate gate;
    gate.close();
    gate.forbid_launches();
    gate.admit();
    static std::atomic<bool> went_on{false};
    std::thread([] {
      { const shutdown_gate::outside waiting(gate); }
      went_on = true;
    }).detach();
    EXPECT_TRUE(gate.wait_until_empty(seconds(20)));
    EXPECT_FALSE(gate.may_launch());
    EXPECT_FALSE(wait_until([] { return went_on.load(); }, milliseconds(20)));
  });
}

TEST(shutdown_gate, a_closed_gate_tells_everybody_not_to_launch) {
  shutdown_gate gate;
  gate.close();
  EXPECT_FALSE(gate.may_launch());
}

TEST(shutdown_gate, closing_parks_whoever_steps_in_again) {
  in_child([] {
    static shutdown_gate gate;
    static std::atomic<bool> outside{false};
    static std::atomic<bool> may_step_in{false};
    static std::atomic<bool> went_on{false};
    gate.admit();
    std::thread([] {
      {
        const shutdown_gate::outside waiting(gate);
        outside = true;
        while (!may_step_in)
          std::this_thread::yield();
      }
      went_on = true;
    }).detach();
    ASSERT_TRUE(wait_until([] { return outside.load(); }));
    gate.close();
    may_step_in = true;
    // It is counted in for a moment while it learns that the gate is closed.
    EXPECT_TRUE(gate.wait_until_empty(seconds(20)));
    EXPECT_FALSE(wait_until([] { return went_on.load(); }, milliseconds(20)));
    EXPECT_TRUE(gate.wait_until_empty(seconds(20)));
  });
}

TEST(shutdown_gate, closing_waits_for_whoever_is_inside) {
  shutdown_gate gate;
  gate.admit();
  gate.close();
  EXPECT_FALSE(gate.wait_until_empty(milliseconds(2)));
  gate.dismiss();
  EXPECT_TRUE(gate.wait_until_empty(milliseconds(0)));
}

TEST(shutdown_gate, a_parked_thread_counts_as_outside) {
  in_child([] {
    static shutdown_gate gate;
    gate.admit();
    std::thread([] { gate.park(); }).detach();
    EXPECT_TRUE(gate.wait_until_empty(seconds(20)));
  });
}

/// Once the gate is closed and found empty, nobody touches what the gate protects.
TEST(shutdown_gate, nobody_is_inside_once_it_is_closed_and_empty) {
  in_child([] {
    static shutdown_gate gate;
    // Plain integers: reading them while a thread counts would be a race.
    static std::vector<int> touched(4, 0);
    constexpr std::size_t kThreads = 4;
    static std::atomic<int> rounds{0};
    for (std::size_t t = 0; t < kThreads; ++t) {
      gate.admit();
      std::thread([t] {
        for (;; ++rounds) {
          ++touched[t];
          const shutdown_gate::outside waiting(gate);
        }
      }).detach();
    }
    ASSERT_TRUE(wait_until([] { return rounds > 1000; }));
    gate.close();
    ASSERT_TRUE(gate.wait_until_empty(seconds(20)));
    const std::vector<int> before = touched;
    EXPECT_FALSE(wait_until([&] { return touched != before; }, milliseconds(20)));
  });
}

TEST(shutdown_gate, a_thread_can_be_counted_out_after_all_else_that_it_does) {
  static shutdown_gate gate;
  static std::atomic<bool> over{false};
  gate.admit();
  std::thread([] {
    gate.dismiss_at_thread_end();
    EXPECT_FALSE(gate.wait_until_empty(milliseconds(0)));
    over = true;
  }).join();
  EXPECT_TRUE(over);
  EXPECT_TRUE(gate.wait_until_empty(milliseconds(0)));
}

}  // namespace
