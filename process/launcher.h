#pragma once

#include <sys/types.h>

/// The one thread that forks.
///
/// Monitors run on stacks that a forked copy does not get (see unforked_memory), so they cannot
/// fork themselves: the copy goes on on the stack of the thread that forked it. They hand their
/// forks to this thread, whose stack is an ordinary one. A fork then costs the same whether ten
/// programs are supervised or ten thousand, and so does the memory that a copy keeps.
///
/// The thread is created by the first fork and lives as long as the process. It touches nothing but
/// the request that it serves.
namespace launcher {

/// What a copy does. It gets the command, in memory of the copy's own, and the context.
/// It must not return.
using copy_body = void (*)(const char* command, void* context);

/// Longest command in bytes with its terminator; a longer one is not run.
inline constexpr unsigned kCommandSize = 1024;

/// Forks a copy that runs `body`, as `fork` would. Called from any thread, by any number of them.
/// @param context handed to `body`; must point to memory that copies share, or be null.
/// @return the copy's process id, or -1 with errno set: EAGAIN when there is no thread to be had
///         either, E2BIG when the command is too long.
pid_t fork_copy(copy_body body, const char* command, void* context) noexcept;

}  // namespace launcher
