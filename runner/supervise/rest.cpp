#include "runner/supervise/rest.h"

#include <fcntl.h>
#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include "common/misc/unique_fd.h"

namespace runner {
namespace {

#ifdef KEELMOND_SANITIZED
constexpr bool kMayGiveBack = false;
#else
constexpr bool kMayGiveBack = true;
#endif

std::uintptr_t page_size() {
  return static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
}

/// The kernel tells addresses as numbers, and takes them as pointers.
void* pointer_to(std::uintptr_t address) {
  return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr)
}

void give_back(std::uintptr_t begin, std::uintptr_t end) {
  ::madvise(pointer_to(begin), end - begin, MADV_DONTNEED);
}

/// Has the kernel bring in the page of a function alone and not its neighbours along with it: it
/// does not go beyond what is mapped in one way.
void set_apart(std::uintptr_t function) {
  const std::uintptr_t page = page_size();
  ::madvise(pointer_to(function & ~(page - 1)), 2 * page, MADV_RANDOM);
}

/// Gives the code back and waits. What runs from the last of these calls on is what stays mapped,
/// so it is as little as possible, and in one place.
[[gnu::noinline]] int wait_without(const memory_part* parts, std::size_t count,
                                   std::vector<pollfd>& requests, int limit) {
  pollfd* const first = requests.data();
  const nfds_t size = requests.size();
  // The code comes before the constants, and calling brings it back.
  for (std::size_t i = count; i > 0; --i)
    give_back(parts[i - 1].begin, parts[i - 1].end);
  return ::poll(first, size, limit);
}

/// Gives back the pages of `begin` to `end` that are still as they are in the file.
void give_back_unwritten(std::uintptr_t begin, std::uintptr_t end) {
  constexpr std::uint64_t kPresentInFile = (1ULL << 63) | (1ULL << 61);
  const std::uintptr_t page = page_size();
  const unique_fd map(::open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC));
  for (std::uintptr_t at = begin; at < end; at += page) {
    std::uint64_t entry = 0;
    const auto place = static_cast<off_t>(at / page * sizeof entry);
    if (::pread(map.get(), &entry, sizeof entry, place) != sizeof entry) return;
    if ((entry & kPresentInFile) == kPresentInFile) give_back(at, at + page);
  }
}

/// Gives back what earlier calls have used of the stack.
void give_back_stack() {
  constexpr std::uintptr_t kDeepest = std::uintptr_t{128} * 1024;
  const std::uintptr_t page = page_size();
  const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  // What is called from here needs some, so a page stays.
  const std::uintptr_t end = (here & ~(page - 1)) - page;
  give_back(end - kDeepest, end);
}

}  // namespace

resting_place::resting_place() {
  if (!kMayGiveBack) return;
  ::dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t /*size*/, void* data) {
        auto& own = *static_cast<resting_place*>(data);
        const std::uintptr_t page = page_size();
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const auto& found = info->dlpi_phdr[i];
          if (found.p_type != PT_LOAD) continue;
          const std::uintptr_t begin = (info->dlpi_addr + found.p_vaddr) & ~(page - 1);
          const std::uintptr_t end = info->dlpi_addr + found.p_vaddr + found.p_filesz;
          const memory_part whole{begin, (end + page - 1) & ~(page - 1)};
          if ((found.p_flags & PF_W) != 0) {
            own.data_ = whole;
          } else if (own.fixed_count_ < own.fixed_.size()) {
            own.fixed_[own.fixed_count_++] = whole;
          }
        }
        // The first object is the program; libraries belong to others as well.
        return 1;
      },
      this);
  set_apart(reinterpret_cast<std::uintptr_t>(&::poll));
  set_apart(reinterpret_cast<std::uintptr_t>(&::madvise));
  set_apart(reinterpret_cast<std::uintptr_t>(&wait_without));
}

int resting_place::wait(std::vector<pollfd>& requests, int limit) const {
  if (!kMayGiveBack) return ::poll(requests.data(), requests.size(), limit);
#ifdef __GLIBC__
  ::malloc_trim(0);
#endif
  give_back_stack();
  give_back_unwritten(data_.begin, data_.end);
  return wait_without(fixed_.data(), fixed_count_, requests, limit);
}

}  // namespace runner
