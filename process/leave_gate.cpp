#include "process/leave_gate.h"

#include <pthread.h>
#include <unistd.h>

#include <thread>

constinit leave_gate g_leave_gate;

namespace {

/// Made once for all gates; its value in a thread is the gate that the thread is inside of.
pthread_key_t make_key() noexcept {
  pthread_key_t key{};
  ::pthread_key_create(&key, [](void* gate) { static_cast<leave_gate*>(gate)->dismiss(); });
  return key;
}

}  // namespace

void leave_gate::dismiss_at_thread_end() noexcept {
  static const pthread_key_t key = make_key();
  ::pthread_setspecific(key, this);
}

void leave_gate::park() noexcept {
  dismiss();
  for (;;)
    ::pause();
}

void leave_gate::forbid_launches() noexcept {
  phase expected = phase::open;
  phase_.compare_exchange_strong(expected, phase::no_launches);
}

bool leave_gate::wait_until_empty(std::chrono::milliseconds limit) const noexcept {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (inside_.load() != 0) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void leave_gate::step_in() noexcept {
  admit();
  if (phase_.load() == phase::closed) park();
}
