#include "process/leave_gate.h"

#include <unistd.h>

#include <thread>

constinit leave_gate g_leave_gate;

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
