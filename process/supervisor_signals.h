#pragma once

#include <chrono>
#include <csignal>
#include <optional>

/// When the supervisor's signals (SIGINT, SIGUSR1, SIGUSR2) reach their handlers.
///
/// Every thread blocks them, always. They are let in only inside `wait_and_deliver` and `deliver`,
/// which one thread at a time calls, at a point where it holds nothing: the handlers can therefore
/// load a configuration, run commands, allocate and end the process as ordinary code does. A signal
/// that arrives at any other time stays pending and is delivered by the next wait; none is lost.
namespace supervisor_signals {

/// Remembers the mask, and what SIGQUIT did, when the process was started, and blocks the
/// supervisor's signals; also SIGPIPE, which a write could end us by until it is ignored, and
/// SIGXFSZ, which a log at the limit for files would end us by. Called by `main`, before any thread
/// exists.
void block() noexcept;

/// Installs `handler` with `signal`, and has all the supervisor's signals wait while it runs, which
/// the kernel sees to: none interrupts another half-way, and of two that arrive at once the first
/// handler sees the second pending.
void handle(int sig, void (*handler)(int)) noexcept;

/// Waits until `fd` can be read, and runs the handlers of the signals that come. They run also
/// while the descriptor cannot be asked for, which is tried again ten times a second.
/// @param fd a descriptor, or -1 to wait for the time alone.
/// @param limit the longest wait; none waits for ever. Handlers that run do not shorten it.
/// @return whether `fd` can be read (or is in error, so that reading it tells).
bool wait_and_deliver(int fd, std::optional<std::chrono::nanoseconds> limit) noexcept;

/// Runs the handlers of the signals that are pending.
void deliver() noexcept;

/// The mask, and what SIGQUIT did, when the process was started: what its programs begin with. Both
/// lie in static memory.
[[nodiscard]] const sigset_t& start_mask() noexcept;
[[nodiscard]] const struct sigaction& start_quit() noexcept;

/// Whether a request to shut down is pending: SIGINT or SIGUSR2. While one of them is handled that
/// is a second request.
[[nodiscard]] bool shutdown_is_pending() noexcept;

}  // namespace supervisor_signals
