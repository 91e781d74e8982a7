#include "common/thread/detached_thread.h"

#include <pthread.h>

bool start_detached_thread(void* (*body)(void*), std::size_t stack_size) noexcept {
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  ::pthread_attr_setstacksize(&attributes, stack_size);
  pthread_t thread{};
  const int error = ::pthread_create(&thread, &attributes, body, nullptr);
  ::pthread_attr_destroy(&attributes);
  return error == 0;
}
