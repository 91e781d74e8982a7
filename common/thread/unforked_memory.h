#pragma once

#include <pthread.h>

#include <cstddef>
#include <memory_resource>
#include <type_traits>

/// Memory that forked children of the process do not get.
///
/// A child that runs a command for days would otherwise keep every page as it was at the fork,
/// while its parent goes on and gets new ones: a thousand children with a thousand stacks each.
/// What threads use for themselves, and no child ever looks at, belongs here.
///
/// What `allocate` returns comes in whole pages, zeroed, from a mapping of its own; the kernel
/// joins neighbouring ones. There are no guard pages: they would keep the mappings apart, and each
/// costs time in every fork. Functions that do not say otherwise may be called from any thread.
namespace unforked_memory {

/// In bytes, where pages are smallest.
inline constexpr std::size_t kPageSize = 4096;

/// @return `size` bytes, or null when there is not enough memory.
void* allocate(std::size_t size) noexcept;

/// Gives back what `allocate` returned for the same `size`; does nothing for null.
void release(void* memory, std::size_t size) noexcept;

/// Makes the stack that the libc has allocated for a thread such memory. Not for the main thread:
/// its stack holds the command line that a child shows.
void add_stack_of(pthread_t thread) noexcept;

/// Has the libc's next allocations, `size` bytes of them, lie in such memory as well: it makes one
/// for each thread. For the only thread there is, after the last fork that is not one of a child.
/// Where the libc cannot be told, children are larger and nothing else changes.
/// @param since something on the heap: what lies behind it, and what else is on its page, becomes
///        such memory, too. Nothing there may be needed by a child; after a `setenv` the
///        environment would be. With null nothing is done.
void add_heap(std::size_t size, void* since) noexcept;

/// The same for containers. Each allocation is a mapping of its own, so something that hands out
/// smaller pieces belongs on top. Throws std::bad_alloc.
std::pmr::memory_resource* resource() noexcept;

/// An object in static storage that threads change with every start or end of a program: each page
/// that is changed after a fork stays in that child as it was. Defined like this, it is in such
/// memory once `add_static_objects` has been called:
///
///     [[gnu::section("unforked")]] constinit unforked_memory::static_object<T> object;
template <typename T>
struct alignas(kPageSize) static_object {
  static_assert(std::is_trivially_destructible_v<T>, "threads use it until the process is gone");

  T* operator->() noexcept { return &value; }

  T value{};
};

/// Makes the pages of all static objects such memory. For the only thread there is, after the last
/// fork that is not one of a child. Where pages are larger than `kPageSize`, they hold other
/// objects as well: children are larger then and nothing else changes.
void add_static_objects() noexcept;

}  // namespace unforked_memory
