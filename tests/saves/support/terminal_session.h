#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "common/misc/unique_fd.h"

/// A program that is used at a terminal of its own, by keys that a test types. Killed with the
/// object. Written for one thread; throws std::runtime_error where the machine is to blame.
class terminal_session final {
 public:
  /// @param command the program, looked for in PATH, and its arguments.
  /// @param prepare runs in the new process before the program.
  terminal_session(const std::vector<std::string>& command, const std::function<void()>& prepare);
  terminal_session(const terminal_session&) = delete;
  terminal_session& operator=(const terminal_session&) = delete;
  ~terminal_session();

  void type(std::string_view keys);
  /// Waits until `condition` holds, and takes what the program prints meanwhile: one that cannot
  /// print does not go on.
  [[nodiscard]] bool wait(const std::function<bool()>& condition);
  /// Waits until the program has printed `text` since the session began.
  [[nodiscard]] bool wait_shown(std::string_view text);
  /// Waits until the program has ended.
  [[nodiscard]] bool wait_ended();
  /// What the program has printed.
  [[nodiscard]] const std::string& printed() const { return printed_; }

 private:
  void take_output();

  unique_fd terminal_;
  pid_t program_ = 0;
  std::string printed_;
};
