#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "common/thread/event_count.h"

/// What many threads hand to one, in the order in which they do.
///
/// `Item` has a member `Item* next`, which belongs to the inbox from `push` until the item has been
/// taken. Nobody ever waits for another thread but the one that takes, and that only while there is
/// nothing. Items are not owned.
template <typename Item>
class inbox final {
 public:
  constexpr inbox() = default;
  inbox(const inbox&) = delete;
  inbox& operator=(const inbox&) = delete;

  /// From any thread. What was written to the item before can be read by the thread that takes it.
  void push(Item& item) noexcept {
    item.next = newest_.load(std::memory_order_relaxed);
    while (!newest_.compare_exchange_weak(item.next, &item, std::memory_order_release,
                                          std::memory_order_relaxed)) {
    }
    pushed_.advance();
  }

  /// Serves each item, the oldest first. From one thread only. An item may be gone as soon as it is
  /// served.
  template <typename Serve>
  [[noreturn]] void serve_for_ever(Serve serve) {
    for (;;) {
      for (Item* list = take_all(); list != nullptr;)
        serve(*std::exchange(list, list->next));
    }
  }

  /// Waits until there is something. From one thread only.
  /// @return all of it as a list, the oldest first.
  Item* take_all() noexcept {
    for (;;) {
      const std::uint32_t seen = pushed_.current();
      Item* list = newest_.exchange(nullptr, std::memory_order_acquire);
      if (list != nullptr) return reversed(list);
      pushed_.await_change(seen);
    }
  }

 private:
  static Item* reversed(Item* list) noexcept {
    Item* result = nullptr;
    while (list != nullptr)
      result = std::exchange(list, std::exchange(list->next, result));
    return result;
  }

  std::atomic<Item*> newest_{nullptr};
  /// Lets the thread that takes sleep.
  event_count pushed_;
};
