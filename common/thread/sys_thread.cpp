#include "common/thread/sys_thread.h"

#include "common/thread/leave_gate.h"
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
  if (IsRunning() || occupied.exchange(true)) return;
  write_flag(aborted, false);
  g_leave_gate.admit();
  if (!create_thread()) {
    g_leave_gate.dismiss();
    occupied.store(false);
  }
}

bool Tsys_thread::create_thread() {
  // Never given back: nobody knows when a thread that is not joined has left its stack.
  void* const stack = unforked_memory::allocate(kSmallStack);
  if (stack == nullptr) return false;
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
  ::pthread_attr_setstack(&attributes, stack, kSmallStack);
  pthread_t created{};
  const int error = ::pthread_create(&created, &attributes, &Tsys_thread::ThreadProc, this);
  ::pthread_attr_destroy(&attributes);
  if (error != 0) {
    unforked_memory::release(stack, kSmallStack);
    return false;
  }
  thread_id = created;
  return true;
}

void* Tsys_thread::ThreadProc(void* arg) {
  if (arg != nullptr) {
    auto* self = static_cast<Tsys_thread*>(arg);
    self->SetRunning(true);
    self->virtual_thread_proc();
    // In this order: whoever sees that the body is over can start it again.
    self->occupied.store(false);
    self->SetRunning(false);
    g_leave_gate.dismiss();
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
