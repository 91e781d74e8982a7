#pragma once

#include <string>

namespace control {

/// A colour's meaning, not its name.
enum class tone { plain, good, warning, bad, faint };

/// What standard output is connected to.
class terminal final {
 public:
  terminal();

  [[nodiscard]] bool is_terminal() const { return is_terminal_; }
  /// Columns; 0 where lines may have any length.
  [[nodiscard]] int width() const;
  [[nodiscard]] int height() const;
  /// The text in a colour, on a terminal and without NO_COLOR; elsewhere as it is.
  [[nodiscard]] std::string painted(const std::string& text, tone how) const;

 private:
  bool is_terminal_;
  bool colours_;
};

}  // namespace control
