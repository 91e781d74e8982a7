#include "common/thread/stack_size.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>

std::size_t small_stack_size(long least) noexcept {
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const auto needed = static_cast<std::size_t>(std::max(least, 0L));
  return std::max(kSmallStack, (needed + page - 1) / page * page);
}

std::size_t small_stack_size() noexcept {
  return small_stack_size(::sysconf(_SC_THREAD_STACK_MIN));
}

void set_default_stack_size(std::size_t size) noexcept {
  pthread_attr_t attributes;
  if (::pthread_attr_init(&attributes) != 0) return;
  if (::pthread_attr_setstacksize(&attributes, size) == 0)
    ::pthread_setattr_default_np(&attributes);
  ::pthread_attr_destroy(&attributes);
}
