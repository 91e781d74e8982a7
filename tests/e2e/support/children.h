#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>

/// The ends of the test process's children: those it started, and those it has inherited because
/// they detached from their parent (a daemon) or lost it (a child of it, a program). Everything
/// that waits for a child asks here, so that no wait takes away another one's result.
namespace children {

/// Makes the kernel hand every orphan below this process to it. Called once, by `main`.
void adopt_orphans();

/// How `pid` has ended, as waitpid tells it; nothing while it has not, or is no child.
std::optional<int> status_of(pid_t pid);

/// Waits for the end of `pid`.
/// @return its exit status; 128 and the signal's number when a signal ended it; nothing when it has
///         not ended in time.
std::optional<int> wait_for_end(pid_t pid,
                                std::chrono::milliseconds limit = std::chrono::seconds(20));

/// Takes note that `pid` is a new child: whatever is known of an earlier one with that number is
/// forgotten.
void announce(pid_t pid);

}  // namespace children
