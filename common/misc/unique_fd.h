#pragma once

#include <unistd.h>

#include <utility>

/// Owns one file descriptor and closes it in the end. -1 means none.
class unique_fd final {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) noexcept : fd_(fd) {}
  unique_fd(unique_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  unique_fd(const unique_fd&) = delete;
  unique_fd& operator=(const unique_fd&) = delete;
  unique_fd& operator=(unique_fd&& other) noexcept {
    reset(std::exchange(other.fd_, -1));
    return *this;
  }
  ~unique_fd() { reset(); }

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }

  /// Gives the descriptor away without closing it.
  int release() noexcept { return std::exchange(fd_, -1); }
  /// Closes the descriptor held, if any, and takes over `fd`.
  void reset(int fd = -1) noexcept {
    const int old = std::exchange(fd_, fd);
    if (old >= 0) ::close(old);
  }

 private:
  int fd_ = -1;
};
