#include "runner/log/page_buffer.h"

#include <sys/mman.h>

namespace runner {

page_buffer::page_buffer(std::size_t size) noexcept {
  void* const memory =
      ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory != MAP_FAILED) space_ = {static_cast<char*>(memory), size};
}

page_buffer::~page_buffer() {
  if (!space_.empty()) ::munmap(space_.data(), space_.size());
}

void page_buffer::give_back() noexcept {
  if (!space_.empty()) ::madvise(space_.data(), space_.size(), MADV_DONTNEED);
}

}  // namespace runner
