#pragma once

#include <string>

#include "common/misc/unique_fd.h"

/// Sends standard output (or standard error) to a file as long as the object lives.
class captured_output final {
 public:
  /// @param fd the descriptor to capture: 1 or 2.
  explicit captured_output(int fd = 1);
  captured_output(const captured_output&) = delete;
  captured_output& operator=(const captured_output&) = delete;
  ~captured_output();

  /// What has been written so far; the capture goes on.
  [[nodiscard]] std::string text() const;

 private:
  int captured_;
  unique_fd before_;
  unique_fd file_;
};
