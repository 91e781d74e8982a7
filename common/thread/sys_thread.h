#pragma once

#include <pthread.h>

/// Base of an object that owns one POSIX thread and runs a virtual body on it.
///
/// Constructed (aborted, not running), started (the thread exists), running (the body runs), ended
/// (the body has returned; the thread stays joinable). It may be started again after it has ended.
/// `Start` and `Stop` are called by one thread at a time; the flags may be read from any thread.
///
/// A body has 64 kB of stack, in memory that children of the process do not get: it must not fork
/// by itself.
class Tsys_thread {
 public:
  Tsys_thread() = default;
  Tsys_thread(const Tsys_thread&) = delete;
  Tsys_thread& operator=(const Tsys_thread&) = delete;
  virtual ~Tsys_thread() = default;

  /// Creates the thread, joinable. Does nothing while the body runs. A thread that has not reached
  /// its body yet does not run: a second call before that creates a second thread. When no thread
  /// can be created only the abort flag is cleared, and a later call tries again.
  void Start();
  /// Asks the body to end and joins the thread, if there is one that has not been joined. The body
  /// is not interrupted; it has to ask `IsAbort`.
  void Stop();

  [[nodiscard]] bool IsAbort() const;
  /// Whether the body runs. True only from the thread's own first step on, not from `Start` on.
  [[nodiscard]] bool IsRunning() const;
  void SetRunning(bool value);

 protected:
  /// The thread's body.
  virtual void virtual_thread_proc() = 0;
  /// Whether a thread has been created and not been joined.
  [[nodiscard]] bool has_thread() const { return thread_id != 0; }

 private:
  void create_thread();
  static void* ThreadProc(void* arg);

  // The two flags are plain booleans for whoever derives from this class. They are read and written
  // through std::atomic_ref, because the thread and its owner use them at the same time.
  bool aborted = true;
  bool running = false;
  pthread_t thread_id = 0;
};
