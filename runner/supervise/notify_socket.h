#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "common/misc/unique_fd.h"

namespace runner {

/// What a program has said of itself with the protocol of sd_notify. The rest of the protocol is
/// none of the launcher's business.
struct notice {
  bool is_ready = false;              ///< READY=1
  std::optional<std::string> status;  ///< STATUS=, as one line that is not too long.
  /// EXTEND_TIMEOUT_USEC=: how much longer it wants to be waited for, counted from now.
  std::optional<std::chrono::milliseconds> more_time;
};

/// Adds what one message says.
void read_notice(std::string_view message, notice& out);

/// Where a program says by itself that it is ready.
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
  /// Takes what has been sent. @return what the program says.
  notice take(pid_t program);

 private:
  unique_fd socket_;
  std::string address_;
};

}  // namespace runner
