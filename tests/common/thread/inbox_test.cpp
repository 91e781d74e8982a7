#include "common/thread/inbox.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/wait_until.h"

namespace {

struct item {
  int number = 0;
  item* next = nullptr;
};

/// The numbers of a list, in its order.
std::vector<int> numbers_of(item* list) {
  std::vector<int> numbers;
  while (list != nullptr)
    numbers.push_back(std::exchange(list, list->next)->number);
  return numbers;
}

TEST(inbox, gives_all_that_was_pushed_oldest_first) {
  inbox<item> box;
  std::array<item, 3> items{{{1}, {2}, {3}}};
  for (item& one : items)
    box.push(one);
  EXPECT_EQ(numbers_of(box.take_all()), (std::vector<int>{1, 2, 3}));
}

TEST(inbox, takes_an_item_again_that_has_been_taken) {
  inbox<item> box;
  std::array<item, 2> items{{{1}, {2}}};
  box.push(items[0]);
  box.push(items[1]);
  box.take_all();
  box.push(items[1]);
  EXPECT_EQ(numbers_of(box.take_all()), std::vector<int>{2});
}

TEST(inbox, lets_the_thread_that_takes_sleep_until_there_is_something) {
  inbox<item> box;
  std::atomic<bool> taken{false};
  std::thread taker([&] {
    box.take_all();
    taken = true;
  });
  EXPECT_TRUE(never([&] { return taken.load(); }));
  item one;
  box.push(one);
  EXPECT_TRUE(wait_until([&] { return taken.load(); }));
  taker.join();
}

TEST(inbox, loses_nothing_that_several_threads_push_and_keeps_the_order_of_each) {
  constexpr int kThreads = 4;
  constexpr int kEach = 5000;
  inbox<item> box;
  std::vector<std::vector<item>> items(kThreads, std::vector<item>(kEach));
  std::vector<std::thread> pushers;
  for (int thread = 0; thread < kThreads; ++thread) {
    pushers.emplace_back([&box, &own = items[static_cast<std::size_t>(thread)], thread] {
      for (int i = 0; i < kEach; ++i) {
        item& one = own[static_cast<std::size_t>(i)];
        one.number = thread * kEach + i;
        box.push(one);
      }
    });
  }
  std::array<int, kThreads> seen{};
  for (int taken = 0; taken < kThreads * kEach;) {
    for (const int number : numbers_of(box.take_all())) {
      EXPECT_EQ(number % kEach, seen[static_cast<std::size_t>(number / kEach)]++);
      ++taken;
    }
  }
  for (std::thread& one : pushers)
    one.join();
}

}  // namespace
