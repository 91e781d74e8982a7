#include "common/thread/sys_thread.h"

#include <atomic>

#include "common/thread/stack_size.h"
#include "common/thread/unforked_memory.h"

namespace {

bool read_flag(const bool& flag) {
  return std::atomic_ref<bool>(const_cast<bool&>(flag)).load();
}

void write_flag(bool& flag, bool value) {
  std::atomic_ref<bool>(flag).store(value);
}

}  // namespace

void Tsys_thread::Start() {
  if (IsRunning()) return;
  write_flag(aborted, false);
  create_thread();
}

void Tsys_thread::create_thread() {
  // Never given back: nobody knows when a thread that is not joined has left its stack.
  const std::size_t size = small_stack_size();
  void* const stack = unforked_memory::allocate(size);
  if (stack == nullptr) return;
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
  pthread_t created{};
  int error = ::pthread_attr_setstack(&attributes, stack, size);
  if (error == 0) error = ::pthread_create(&created, &attributes, &Tsys_thread::ThreadProc, this);
  ::pthread_attr_destroy(&attributes);
  if (error == 0) {
    thread_id = created;
  } else {
    unforked_memory::release(stack, size);
  }
}

void* Tsys_thread::ThreadProc(void* arg) {
  if (arg != nullptr) {
    auto* self = static_cast<Tsys_thread*>(arg);
    self->SetRunning(true);
    self->virtual_thread_proc();
    self->SetRunning(false);
  }
  ::pthread_exit(nullptr);
}

void Tsys_thread::Stop() {
  write_flag(aborted, true);
  if (thread_id == 0) return;
  ::pthread_join(thread_id, nullptr);
  // The handle is used up: it may soon belong to another thread.
  thread_id = 0;
}

bool Tsys_thread::IsAbort() const {
  return read_flag(aborted);
}

bool Tsys_thread::IsRunning() const {
  return read_flag(running);
}

void Tsys_thread::SetRunning(bool value) {
  write_flag(running, value);
}
