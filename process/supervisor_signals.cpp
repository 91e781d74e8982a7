#include "process/supervisor_signals.h"

#include <poll.h>

#include <cerrno>

namespace supervisor_signals {
namespace {

/// Both written by `block` before any thread exists, only read afterwards.
sigset_t mask_at_start;
struct sigaction quit_at_start;

sigset_t ours() noexcept {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGINT);
  ::sigaddset(&set, SIGUSR1);
  ::sigaddset(&set, SIGUSR2);
  return set;
}

/// The calling thread's mask without the supervisor's signals.
sigset_t opened_mask() noexcept {
  sigset_t mask;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  ::sigdelset(&mask, SIGINT);
  ::sigdelset(&mask, SIGUSR1);
  ::sigdelset(&mask, SIGUSR2);
  return mask;
}

timespec to_timespec(std::chrono::nanoseconds time) noexcept {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  return {static_cast<time_t>(seconds.count()), static_cast<long>((time - seconds).count())};
}

}  // namespace

void block() noexcept {
  sigset_t blocked = ours();
  ::sigaddset(&blocked, SIGPIPE);
  ::sigaddset(&blocked, SIGXFSZ);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &mask_at_start);
  ::sigaction(SIGQUIT, nullptr, &quit_at_start);
}

void handle(int sig, void (*handler)(int)) noexcept {
  ::signal(sig, handler);
  struct sigaction action;
  ::sigaction(sig, nullptr, &action);
  action.sa_mask = ours();
  ::sigaction(sig, &action, nullptr);
}

bool wait_and_deliver(int fd, std::optional<std::chrono::nanoseconds> limit) noexcept {
  using clock = std::chrono::steady_clock;
  constexpr timespec kRest{0, 100'000'000};
  const auto start = clock::now();
  pollfd request{fd, POLLIN, 0};
  for (;;) {
    timespec left{};
    if (limit) {
      const auto remaining = *limit - (clock::now() - start);
      left = to_timespec(std::max(remaining, std::chrono::nanoseconds::zero()));
    }
    const sigset_t mask = opened_mask();
    const int ready = ::ppoll(&request, 1, limit ? &left : nullptr, &mask);
    if (ready > 0) return true;
    if (ready == 0) return false;
    if (errno == EINTR) continue;
    // RLIMIT_NOFILE is 0, most likely, and the time alone can be waited for. Whoever read the
    // descriptor now would wait with the signals blocked.
    if (limit && clock::now() - start >= *limit) return false;
    ::ppoll(nullptr, 0, &kRest, &mask);
  }
}

void deliver() noexcept {
  constexpr timespec kNoTime{};
  // Each call returns when a handler has run, and the others may still be pending.
  for (;;) {
    const sigset_t mask = opened_mask();
    if (::ppoll(nullptr, 0, &kNoTime, &mask) == 0 || errno != EINTR) return;
  }
}

const sigset_t& start_mask() noexcept {
  return mask_at_start;
}

const struct sigaction& start_quit() noexcept {
  return quit_at_start;
}

bool shutdown_is_pending() noexcept {
  sigset_t pending;
  ::sigpending(&pending);
  return ::sigismember(&pending, SIGINT) == 1 || ::sigismember(&pending, SIGUSR2) == 1;
}

}  // namespace supervisor_signals
