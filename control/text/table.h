#pragma once

#include <string>
#include <vector>

#include "control/text/terminal.h"

namespace control {

/// Lines up columns.
class table final {
 public:
  enum class align { left, right };
  struct column {
    std::string title;
    align side = align::left;
    /// Gives way first when the terminal is too narrow.
    bool may_shrink = false;
  };
  struct cell {
    std::string text;
    tone how = tone::plain;
  };

  explicit table(std::vector<column> columns) : columns_(std::move(columns)) {}

  void add(std::vector<cell> row) { rows_.push_back(std::move(row)); }
  /// The titles and all rows. Columns in which every cell is empty are left out. Where the terminal
  /// is too narrow, what may shrink does; then numbers are left out from the right, and the rest is
  /// cut.
  [[nodiscard]] std::string print(const terminal& out) const;

 private:
  [[nodiscard]] std::vector<std::size_t> widths(int limit) const;
  [[nodiscard]] std::vector<std::size_t> natural_widths() const;

  std::vector<column> columns_;
  std::vector<std::vector<cell>> rows_;
};

/// How many columns a terminal needs for the text: bytes that continue a character need none.
std::size_t columns_of(const std::string& text);
/// The beginning of the text that fits, with "~" where something was cut.
std::string cut_to(const std::string& text, std::size_t columns);
/// The text with every byte that could steer a terminal replaced by "?".
std::string printable(const std::string& text);

}  // namespace control
