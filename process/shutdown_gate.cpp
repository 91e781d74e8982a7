#include "process/shutdown_gate.h"

#include <pthread.h>
#include <unistd.h>

#include "common/misc/poll_until.h"
#include "common/thread/unforked_memory.h"

namespace {

[[gnu::section("unforked")]] constinit unforked_memory::static_object<shutdown_gate> g_gate;

/// Made once for all gates; its value in a thread is the gate that the thread is inside of.
pthread_key_t make_key() noexcept {
  pthread_key_t key{};
  ::pthread_key_create(&key, [](void* gate) { static_cast<shutdown_gate*>(gate)->dismiss(); });
  return key;
}

}  // namespace

constinit shutdown_gate& g_shutdown_gate = g_gate.value;

void shutdown_gate::dismiss_at_thread_end() noexcept {
  static const pthread_key_t key = make_key();
  ::pthread_setspecific(key, this);
}

void shutdown_gate::park() noexcept {
  dismiss();
  for (;;)
    ::pause();
}

void shutdown_gate::forbid_launches() noexcept {
  phase expected = phase::open;
  phase_.compare_exchange_strong(expected, phase::no_launches);
}

bool shutdown_gate::wait_until_empty(std::chrono::milliseconds limit) const noexcept {
  return poll_until(limit, std::chrono::milliseconds(1), [this] { return inside_.load() == 0; });
}

void shutdown_gate::step_in() noexcept {
  admit();
  if (phase_.load() == phase::closed) park();
}
