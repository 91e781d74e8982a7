#include "common/thread/unforked_memory.h"

#include <sys/mman.h>

namespace unforked_memory {

void* allocate(std::size_t size) noexcept {
  void* const memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
    // Where the kernel does not know the advice, children are larger and nothing else changes.
#ifndef KEELMOND_SANITIZED
  // The sanitizers want an ordinary fork, which looks at every thread's stack.
  ::madvise(memory, size, MADV_DONTFORK);
#endif
  // Of each stack a few kilobytes are ever touched. A large page would fill the gaps between them.
  ::madvise(memory, size, MADV_NOHUGEPAGE);
  return memory;
}

void release(void* memory, std::size_t size) noexcept {
  if (memory != nullptr) ::munmap(memory, size);
}

}  // namespace unforked_memory
