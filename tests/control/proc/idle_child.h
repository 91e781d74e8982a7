#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

/// A child that does nothing until it is ended.
class idle_child final {
 public:
  idle_child() : pid_(::fork()) {
    // Its number is killed later, and -1 is everybody.
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ != 0) return;
    for (;;)
      ::pause();
  }
  idle_child(const idle_child&) = delete;
  idle_child& operator=(const idle_child&) = delete;
  ~idle_child() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  [[nodiscard]] pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};
