#pragma once

#include <sys/types.h>

#include <string>

#include "common/misc/unique_fd.h"

namespace runner {

/// Where a program says by itself that it is ready, with the protocol of sd_notify.
///
/// The socket has no place in the file system, so a program of any user reaches it, and so does
/// everybody else: only what the program and its descendants send counts.
class notify_socket final {
 public:
  /// @return why there is none; empty when there is one.
  std::string open();
  void close() { socket_.reset(); }
  [[nodiscard]] int fd() const { return socket_.get(); }
  /// What NOTIFY_SOCKET has to be.
  [[nodiscard]] const std::string& address() const { return address_; }
  /// Takes what has been sent. @return whether the program says that it is ready.
  bool is_ready(pid_t program);

 private:
  unique_fd socket_;
  std::string address_;
};

}  // namespace runner
