#include "common/thread/unforked_memory.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

// The linker makes these two for every section whose name could be a variable's. Weak: a program
// may have nothing in this one.
extern "C" {
[[gnu::weak]] extern std::byte __start_unforked[];
[[gnu::weak]] extern std::byte __stop_unforked[];
}

namespace unforked_memory {
namespace {

class page_resource final : public std::pmr::memory_resource {
  void* do_allocate(std::size_t size, std::size_t /*alignment: a page's is enough*/) override {
    void* const memory = unforked_memory::allocate(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
  }
  void do_deallocate(void* memory, std::size_t size, std::size_t /*alignment*/) override {
    release(memory, size);
  }
  [[nodiscard]] bool do_is_equal(const memory_resource& other) const noexcept override {
    return this == &other;
  }
};

/// Works on whole pages.
void keep_out_of_forks(void* memory, std::size_t size) noexcept {
#ifndef KEELMOND_SANITIZED
  // Where the kernel does not know the advice, children are larger and nothing else changes. The
  // sanitizers want an ordinary fork, which looks at every thread's stack.
  ::madvise(memory, size, MADV_DONTFORK);
#endif
  // Of each stack a few kilobytes are ever touched. A large page would fill the gaps between them.
  ::madvise(memory, size, MADV_NOHUGEPAGE);
}

}  // namespace

void* allocate(std::size_t size) noexcept {
  void* const memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  keep_out_of_forks(memory, size);
  return memory;
}

void add_stack_of(pthread_t thread) noexcept {
  pthread_attr_t attributes;
  if (::pthread_getattr_np(thread, &attributes) != 0) return;
  void* stack = nullptr;
  std::size_t size = 0;
  if (::pthread_attr_getstack(&attributes, &stack, &size) == 0) keep_out_of_forks(stack, size);
  ::pthread_attr_destroy(&attributes);
}

void add_heap([[maybe_unused]] std::size_t size, [[maybe_unused]] void* since) noexcept {
#ifdef M_TOP_PAD
  if (since == nullptr) return;
  // More than is left of the heap as the libc first makes it, so that it grows by `size` now; and
  // less than what would get a mapping of its own.
  constexpr std::size_t kProbe = std::size_t{96} * 1024;
  ::mallopt(M_TOP_PAD, static_cast<int>(size));
  // Volatile, or a compiler that sees nobody use it leaves both calls out.
  void* volatile probe = std::malloc(kProbe);
  std::free(probe);
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  auto* const begin =
      static_cast<std::byte*>(since) - reinterpret_cast<std::uintptr_t>(since) % page;
  const std::ptrdiff_t length = static_cast<std::byte*>(::sbrk(0)) - begin;
  // Unless the libc has its heap elsewhere.
  if (length > 0 && static_cast<std::size_t>(length) <= 2 * size)
    keep_out_of_forks(begin, static_cast<std::size_t>(length));
#endif
}

void add_static_objects() noexcept {
  std::byte* const begin = __start_unforked;
  std::byte* const end = __stop_unforked;
  if (begin != end && ::sysconf(_SC_PAGESIZE) == kPageSize)
    keep_out_of_forks(begin, static_cast<std::size_t>(end - begin));
}

void release(void* memory, std::size_t size) noexcept {
  if (memory != nullptr) ::munmap(memory, size);
}

std::pmr::memory_resource* resource() noexcept {
  static constinit page_resource instance;
  return &instance;
}

}  // namespace unforked_memory
