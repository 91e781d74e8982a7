#include "process/launcher.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "common/misc/bounded_text.h"
#include "common/thread/event_count.h"

namespace launcher {
namespace {

/// One fork that a thread waits for. It stands on that thread's stack.
struct request {
  copy_body body;
  const char* command;
  void* context;
  request* next = nullptr;
  /// What fork returned, and errno after it. Written before `served` advances, read after it.
  pid_t copy = -1;
  int error = 0;
  event_count served{};
};

/// Requests not yet taken, the newest first. Pushed by any thread, taken all at once by the
/// launcher. Release and acquire carry the request's content over.
std::atomic<request*> waiting{nullptr};

/// Counts what was pushed, so that the launcher can sleep while there is nothing.
event_count pushed;

constexpr pid_t kNone = 0;
constexpr pid_t kBeingCreated = -1;

/// The process in which the launcher's thread runs. A forked process has the value of its parent
/// but not the thread, and sees that from the process id.
std::atomic<pid_t> running_in{kNone};

/// The oldest first, so that nobody is overtaken.
request* reverse(request* list) noexcept {
  request* reversed = nullptr;
  while (list != nullptr)
    reversed = std::exchange(list, std::exchange(list->next, reversed));
  return reversed;
}

void serve(request& wanted) noexcept {
  // The copy gets this thread's stack, not the requester's.
  char command[kCommandSize];
  copy_bounded(command, wanted.command);
  const copy_body body = wanted.body;
  void* const context = wanted.context;
  const pid_t copy = ::fork();
  if (copy == 0) {
    body(command, context);
    ::_exit(0);
  }
  wanted.error = errno;
  wanted.copy = copy;
  // The requester is on its way as soon as the count has changed, and with it the request.
  wanted.served.advance();
}

void* serve_for_ever(void* /*unused*/) {
  for (;;) {
    const std::uint32_t seen = pushed.current();
    request* list = reverse(waiting.exchange(nullptr, std::memory_order_acquire));
    if (list == nullptr) pushed.await_change(seen);
    // The next one first: the request is gone as soon as it is served.
    while (list != nullptr)
      serve(*std::exchange(list, list->next));
  }
}

bool create_thread() noexcept {
  pthread_t thread{};
  if (::pthread_create(&thread, nullptr, serve_for_ever, nullptr) != 0) return false;
  ::pthread_detach(thread);
  return true;
}

/// @return false when there is no thread to be had.
bool ensure_running() noexcept {
  const pid_t self = ::getpid();
  for (;;) {
    pid_t state = running_in.load();
    if (state == self) return true;
    if (state == kBeingCreated) {
      ::sched_yield();
    } else if (running_in.compare_exchange_strong(state, kBeingCreated)) {
      const bool created = create_thread();
      running_in.store(created ? self : kNone);
      return created;
    }
  }
}

}  // namespace

pid_t fork_copy(copy_body body, const char* command, void* context) noexcept {
  if (std::char_traits<char>::length(command) >= kCommandSize) {
    errno = E2BIG;
    return -1;
  }
  if (!ensure_running()) {
    errno = EAGAIN;
    return -1;
  }
  request own{body, command, context};
  own.next = waiting.load(std::memory_order_relaxed);
  while (!waiting.compare_exchange_weak(own.next, &own, std::memory_order_release,
                                        std::memory_order_relaxed)) {
  }
  pushed.advance();
  own.served.await_change(0);
  errno = own.error;
  return own.copy;
}

}  // namespace launcher
