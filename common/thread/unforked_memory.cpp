#include "common/thread/unforked_memory.h"

#include <sys/mman.h>

namespace unforked_memory {

void* allocate(std::size_t size) noexcept {
  void* const memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  // Where the kernel does not know the advice, copies are larger and nothing else changes.
  ::madvise(memory, size, MADV_DONTFORK);
  return memory;
}

void release(void* memory, std::size_t size) noexcept {
  if (memory != nullptr) ::munmap(memory, size);
}

}  // namespace unforked_memory
