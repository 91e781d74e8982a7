#include "common/thread/detached_thread.h"

#include <pthread.h>

#include "common/thread/stack_size.h"
#include "common/thread/unforked_memory.h"

bool start_detached_thread(void* (*body)(void*), std::span<std::byte> stack) noexcept {
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread{};
  int error = ::pthread_attr_setstack(&attributes, stack.data(), stack.size());
  if (error == 0) error = ::pthread_create(&thread, &attributes, body, nullptr);
  ::pthread_attr_destroy(&attributes);
  return error == 0;
}

bool start_detached_thread(void* (*body)(void*)) noexcept {
  const std::size_t size = small_stack_size();
  void* const stack = unforked_memory::allocate(size);
  if (stack == nullptr) return false;
  if (start_detached_thread(body, {static_cast<std::byte*>(stack), size})) return true;
  unforked_memory::release(stack, size);
  return false;
}
