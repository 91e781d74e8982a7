#include "common/thread/event_count.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>

#include "tests/support/in_child.h"
#include "tests/support/wait_until.h"

namespace {

/// Whether a thread of this process sleeps in the kernel.
bool is_asleep(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string stat;
  std::getline(file, stat);
  const auto name_end = stat.rfind(") ");
  return name_end != std::string::npos && stat.compare(name_end + 2, 1, "S") == 0;
}

std::atomic<int> handled{0};

void count_signal(int /*sig*/) {
  handled.fetch_add(1);
}

/// A thread that waits for the first event.
struct waiter {
  event_count events;
  int content = 0;
  std::atomic<pid_t> id{0};
  std::atomic<int> seen{0};
  std::thread thread{[this] {
    id = ::gettid();
    events.await_change(0);
    seen = content;
  }};
};

TEST(event_count, counts_events) {
  event_count events;
  EXPECT_EQ(events.current(), 0U);
  events.advance();
  events.advance();
  EXPECT_EQ(events.current(), 2U);
}

TEST(event_count, an_event_from_before_the_wait_ends_it_at_once) {
  event_count events;
  events.advance();
  events.await_change(0);
  EXPECT_EQ(events.current(), 1U);
}

TEST(event_count, a_waiter_sleeps_until_the_event_and_sees_what_was_written_before_it) {
  waiter one;
  EXPECT_TRUE(wait_until([&] { return one.id != 0 && is_asleep(one.id); }));
  EXPECT_EQ(one.seen, 0);
  one.content = 7;
  one.events.advance();
  one.thread.join();
  EXPECT_EQ(one.seen, 7);
}

TEST(event_count, sleepers_are_in_the_table_of_the_machine_where_the_kernel_has_others) {
  in_child([] {
    event_count::use_common_table();
    // With its second thread a process gets a table of its own.
    std::thread([] {}).join();
    constexpr int kFutexHash = 78;
    constexpr unsigned long kGetSlots = 2;
    const int lists = ::prctl(kFutexHash, kGetSlots, 0UL, 0UL, 0UL);
    EXPECT_LE(lists, 0) << "-1: the kernel is older and has no others";
  });
}

TEST(event_count, a_signal_does_not_end_the_wait) {
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = count_signal;
  ::sigaction(SIGURG, &action, &before);
  handled = 0;
  waiter one;
  one.content = 7;
  EXPECT_TRUE(wait_until([&] { return one.id != 0 && is_asleep(one.id); }));
  ::pthread_kill(one.thread.native_handle(), SIGURG);
  EXPECT_TRUE(wait_until([] { return handled == 1; }));
  EXPECT_TRUE(wait_until([&] { return is_asleep(one.id); }));
  EXPECT_EQ(one.seen, 0);
  one.events.advance();
  one.thread.join();
  EXPECT_EQ(one.seen, 7);
  ::sigaction(SIGURG, &before, nullptr);
}

}  // namespace
