#pragma once

#include <termios.h>

#include <chrono>

namespace control {

/// Lets single keys through from the terminal on standard input, without showing them, and has the
/// screen to itself, as long as the object lives.
class raw_keyboard final {
 public:
  raw_keyboard();
  raw_keyboard(const raw_keyboard&) = delete;
  raw_keyboard& operator=(const raw_keyboard&) = delete;
  ~raw_keyboard();

  /// Waits for a key. @return 0 when none came in time, 'q' when there is nobody to press any.
  [[nodiscard]] char wait(std::chrono::milliseconds limit) const;

 private:
  termios before_{};
};

}  // namespace control
