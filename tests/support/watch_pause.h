#pragma once

#include <poll.h>

#include <chrono>
#include <csignal>

/// The watcher's pause of two seconds, seen where it enters the kernel: a wait for nothing but a
/// second or more. Test builds redirect `ppoll` and make it short.
namespace watch_pause {

using system_ppoll = int (*)(pollfd* requests, nfds_t count, const timespec* limit,
                             const sigset_t* mask);

/// Whether a `ppoll` with these arguments is the pause.
bool matches(const pollfd* requests, const timespec* limit) noexcept;

/// Pauses for a shorter time. Handlers run and do not make two pauses of it.
void pause_for(std::chrono::milliseconds time, const sigset_t* mask, system_ppoll real) noexcept;

}  // namespace watch_pause
