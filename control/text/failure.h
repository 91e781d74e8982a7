#pragma once

#include <stdexcept>
#include <string>

namespace control {

/// Why a command cannot do what it was asked to: what happened, to what, and what to do about it.
/// Ends the command; `main` prints the text with the command's name in front.
class failure final : public std::runtime_error {
 public:
  explicit failure(const std::string& text, int exit_status = 1)
      : std::runtime_error(text), status_(exit_status) {}

  [[nodiscard]] int exit_status() const { return status_; }

 private:
  int status_;
};

}  // namespace control
