#pragma once

#include <string>
#include <vector>

#include "common/misc/unique_fd.h"

/// A socket that takes messages as the local syslog and the journal do.
class message_socket final {
 public:
  /// Listens at `path`, which nothing may be at.
  explicit message_socket(std::string path);
  message_socket(const message_socket&) = delete;
  message_socket& operator=(const message_socket&) = delete;
  ~message_socket();

  /// What has come in since the last time.
  [[nodiscard]] std::vector<std::string> messages() const;

 private:
  std::string path_;
  unique_fd fd_;
};
