#include "common/thread/stack_size.h"

#include <pthread.h>

void set_default_stack_size(std::size_t size) noexcept {
  pthread_attr_t attributes;
  if (::pthread_attr_init(&attributes) != 0) return;
  if (::pthread_attr_setstacksize(&attributes, size) == 0)
    ::pthread_setattr_default_np(&attributes);
  ::pthread_attr_destroy(&attributes);
}
