#pragma once

#include <cstddef>

/// How much stack threads get, in bytes. Stated for each of them: what a thread gets otherwise
/// depends on the limit that the process was started with, and can be too little, or more than
/// there is.
#ifdef KEELMOND_SANITIZED
// Instrumented code needs several times as much.
inline constexpr std::size_t kSmallStack = std::size_t{1024} * 1024;
inline constexpr std::size_t kLargeStack = std::size_t{8} * 1024 * 1024;
inline constexpr std::size_t kForkingStack = kLargeStack;
#else
/// For threads that do a few things with bounded buffers; see `small_stack_size`.
inline constexpr std::size_t kSmallStack = std::size_t{64} * 1024;
/// For threads that load configurations and run the handlers.
inline constexpr std::size_t kLargeStack = std::size_t{512} * 1024;
/// For the thread that forks, whose stack is the children's as well: more than any processor's
/// libc asks for.
inline constexpr std::size_t kForkingStack = std::size_t{256} * 1024;
#endif

/// `kSmallStack`, or what a thread needs at least where that is more, in whole pages: 128 kB with
/// glibc on 64-bit ARM and POWER.
/// @param least what the libc and the processor ask for, in bytes.
std::size_t small_stack_size(long least) noexcept;
std::size_t small_stack_size() noexcept;

/// Gives threads with default attributes `size` bytes of stack from now on. Where that cannot be
/// set they get what the stack limit of the start says.
void set_default_stack_size(std::size_t size) noexcept;
