#include "tests/support/fault.h"

#include <cerrno>

#include "tests/support/fork_rule.h"

system_calls faults;

// What the linker calls the two ends of a redirected call: the code under test arrives at the first
// name, the second one is the system's own function.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

pid_t __real_fork();
pid_t __real__Fork();
int __real_clone(int (*body)(void*), void* stack, int flags, void* argument, ...);
pid_t __real_waitpid(pid_t pid, int* status, int options);
int __real_execv(const char* path, char* const* arguments);
int __real_pipe2(int* ends, int flags);
int __real_kill(pid_t pid, int sig);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __real_pthread_join(pthread_t thread, void** result);
int __real_inotify_init1(int flags);
int __real_inotify_add_watch(int fd, const char* path, std::uint32_t events);
int __real_inotify_rm_watch(int fd, int watch);
ssize_t __real_read(int fd, void* out, std::size_t size);
ssize_t __real_write(int fd, const void* text, std::size_t size);
int __real_poll(pollfd* requests, nfds_t count, int milliseconds);
int __real_ppoll(pollfd* requests, nfds_t count, const timespec* limit, const sigset_t* mask);
int __real_select(int count, fd_set* readable, fd_set* writable, fd_set* special, timeval* limit);
int __real_flock(int fd, int operation);
void* __real_mmap(void* at, std::size_t size, int protection, int flags, int fd, off_t offset);

pid_t __wrap_fork() {
  require_forking_thread();
  return faults.fork ? faults.fork() : __real_fork();
}

pid_t __wrap__Fork() {
  require_forking_thread();
  return faults.fork ? faults.fork() : __real__Fork();
}

int __wrap_clone(int (*body)(void*), void* stack, int flags, void* argument, ...) {
  return faults.clone ? faults.clone() : __real_clone(body, stack, flags, argument);
}

pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
  return faults.waitpid ? faults.waitpid(pid, status, options)
                        : __real_waitpid(pid, status, options);
}

int __wrap_execv(const char* path, char* const* arguments) {
  return faults.execv ? faults.execv(path, arguments) : __real_execv(path, arguments);
}

void* __wrap_mmap(void* at, std::size_t size, int protection, int flags, int fd, off_t offset) {
  return faults.mmap ? faults.mmap(at, size, protection, flags, fd, offset)
                     : __real_mmap(at, size, protection, flags, fd, offset);
}

int __wrap_pipe2(int* ends, int flags) {
  return faults.pipe2 ? faults.pipe2(ends, flags) : __real_pipe2(ends, flags);
}

int __wrap_kill(pid_t pid, int sig) {
  return faults.kill ? faults.kill(pid, sig) : __real_kill(pid, sig);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument) {
  return faults.pthread_create ? faults.pthread_create(thread, attributes, body, argument)
                               : __real_pthread_create(thread, attributes, body, argument);
}

int __wrap_pthread_join(pthread_t thread, void** result) {
  return faults.pthread_join ? faults.pthread_join(thread, result)
                             : __real_pthread_join(thread, result);
}

int __wrap_inotify_init1(int flags) {
  return faults.inotify_init1 ? faults.inotify_init1(flags) : __real_inotify_init1(flags);
}

int __wrap_inotify_add_watch(int fd, const char* path, std::uint32_t events) {
  return faults.inotify_add_watch ? faults.inotify_add_watch(fd, path, events)
                                  : __real_inotify_add_watch(fd, path, events);
}

int __wrap_inotify_rm_watch(int fd, int watch) {
  return faults.inotify_rm_watch ? faults.inotify_rm_watch(fd, watch)
                                 : __real_inotify_rm_watch(fd, watch);
}

ssize_t __wrap_read(int fd, void* out, std::size_t size) {
  return faults.read ? faults.read(fd, out, size) : __real_read(fd, out, size);
}

ssize_t __wrap_write(int fd, const void* text, std::size_t size) {
  return faults.write ? faults.write(fd, text, size) : __real_write(fd, text, size);
}

int __wrap_poll(pollfd* requests, nfds_t count, int milliseconds) {
  return faults.poll ? faults.poll(requests, count, milliseconds)
                     : __real_poll(requests, count, milliseconds);
}

int __wrap_ppoll(pollfd* requests, nfds_t count, const timespec* limit, const sigset_t* mask) {
  return faults.ppoll ? faults.ppoll(requests, count, limit, mask)
                      : __real_ppoll(requests, count, limit, mask);
}

int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* special, timeval* limit) {
  return faults.select ? faults.select(count, readable, writable, special, limit)
                       : __real_select(count, readable, writable, special, limit);
}

int __wrap_flock(int fd, int operation) {
  return faults.flock ? faults.flock(fd, operation) : __real_flock(fd, operation);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace real {

pid_t fork() {
  return __real_fork();
}
pid_t fork_bare() {
#ifdef KEELMOND_SANITIZED
  return __real_fork();
#else
  return __real__Fork();
#endif
}
pid_t waitpid(pid_t pid, int* status, int options) {
  return __real_waitpid(pid, status, options);
}
int execv(const char* path, char* const* arguments) {
  return __real_execv(path, arguments);
}
int kill(pid_t pid, int sig) {
  return __real_kill(pid, sig);
}
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) {
  return __real_pthread_create(thread, attributes, body, argument);
}
int pthread_join(pthread_t thread, void** result) {
  return __real_pthread_join(thread, result);
}
int inotify_init1(int flags) {
  return __real_inotify_init1(flags);
}
int inotify_add_watch(int fd, const char* path, std::uint32_t events) {
  return __real_inotify_add_watch(fd, path, events);
}
int inotify_rm_watch(int fd, int watch) {
  return __real_inotify_rm_watch(fd, watch);
}
ssize_t read(int fd, void* out, std::size_t size) {
  return __real_read(fd, out, size);
}
ssize_t write(int fd, const void* text, std::size_t size) {
  return __real_write(fd, text, size);
}
int poll(pollfd* requests, nfds_t count, int milliseconds) {
  return __real_poll(requests, count, milliseconds);
}
int ppoll(pollfd* requests, nfds_t count, const timespec* limit, const sigset_t* mask) {
  return __real_ppoll(requests, count, limit, mask);
}
int select(int count, fd_set* readable, fd_set* writable, fd_set* special, timeval* limit) {
  return __real_select(count, readable, writable, special, limit);
}
int flock(int fd, int operation) {
  return __real_flock(fd, operation);
}

}  // namespace real

int without_pipes(int* /*ends*/, int /*flags*/) {
  errno = EMFILE;
  return -1;
}
