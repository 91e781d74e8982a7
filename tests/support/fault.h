#pragma once

#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/types.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>

/// Replaces some system calls of the code under test, so that a test can make them fail, count them
/// or answer in their place. An empty function lets the call through.
///
/// The linker redirects these calls in every test binary (see `keelmond_add_tests`); the product
/// knows nothing of it. Functions are set while no other thread is inside a call of the same name,
/// best before the first thread is started.
struct system_calls {
  /// `fork` and `_Fork`.
  std::function<pid_t()> fork;
  /// By which a child starts its shell, except in sanitizer builds.
  std::function<pid_t()> clone;
  std::function<pid_t(pid_t, int*, int)> waitpid;
  /// Runs in the process that is to become a program.
  std::function<int(const char*, char* const*)> execv;
  std::function<int(pid_t, int)> kill;
  std::function<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> pthread_create;
  std::function<int(pthread_t, void**)> pthread_join;
  std::function<int(int)> inotify_init1;
  std::function<int(int, const char*, std::uint32_t)> inotify_add_watch;
  std::function<int(int, int)> inotify_rm_watch;
  std::function<ssize_t(int, void*, std::size_t)> read;
  std::function<ssize_t(int, const void*, std::size_t)> write;
  std::function<int(pollfd*, nfds_t, int)> poll;
  std::function<int(pollfd*, nfds_t, const timespec*, const sigset_t*)> ppoll;
  std::function<int(int, fd_set*, fd_set*, fd_set*, timeval*)> select;
  std::function<int(int, int)> flock;
  std::function<int(int*, int)> pipe2;
  std::function<void*(void*, std::size_t, int, int, int, off_t)> mmap;
};

/// What replaces them at the moment.
extern system_calls faults;

/// The calls themselves, for functions that let some of them through.
namespace real {
pid_t fork();
/// The fork that the supervisor uses for its children.
pid_t fork_bare();
pid_t waitpid(pid_t pid, int* status, int options);
int execv(const char* path, char* const* arguments);
int kill(pid_t pid, int sig);
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument);
int pthread_join(pthread_t thread, void** result);
int inotify_init1(int flags);
int inotify_add_watch(int fd, const char* path, std::uint32_t events);
int inotify_rm_watch(int fd, int watch);
ssize_t read(int fd, void* out, std::size_t size);
ssize_t write(int fd, const void* text, std::size_t size);
int poll(pollfd* requests, nfds_t count, int milliseconds);
int ppoll(pollfd* requests, nfds_t count, const timespec* limit, const sigset_t* mask);
int select(int count, fd_set* readable, fd_set* writable, fd_set* special, timeval* limit);
int flock(int fd, int operation);
}  // namespace real

/// A `pipe2` that has no descriptors: whoever wants to run a command then fails before a child is
/// forked.
int without_pipes(int* ends, int flags);

/// Lets all calls through again when it is destroyed.
class no_faults_afterwards final {
 public:
  no_faults_afterwards() = default;
  no_faults_afterwards(const no_faults_afterwards&) = delete;
  no_faults_afterwards& operator=(const no_faults_afterwards&) = delete;
  ~no_faults_afterwards() { faults = {}; }
};
