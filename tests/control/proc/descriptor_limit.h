#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

/// Leaves room for so many more open descriptors for as long as it lives.
class descriptor_limit final {
 public:
  explicit descriptor_limit(int more) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    // The lowest number that is free; those below it are taken.
    const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(next);
    const rlimit low{static_cast<rlim_t>(next + more), before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &low);
  }
  descriptor_limit(const descriptor_limit&) = delete;
  descriptor_limit& operator=(const descriptor_limit&) = delete;
  ~descriptor_limit() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};
