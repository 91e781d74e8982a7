#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "runner/log/steady_time.h"

namespace runner {

/// What the launcher has to say, until it can stand on lines of its own in the log.
class own_lines final {
 public:
  static constexpr std::string_view kPrefix = "keelmond-run: ";

  void add(std::string_view text) {
    if (lines_.empty()) until_ = steady_now() + std::chrono::seconds(1);
    lines_.append(kPrefix).append(text).append(1, '\n');
  }
  [[nodiscard]] bool empty() const { return lines_.empty(); }
  /// How long they wait for the end of a program's line.
  [[nodiscard]] std::optional<time_point> until() const {
    return lines_.empty() ? std::nullopt : std::optional(until_);
  }
  /// Gives the lines away, each with its end.
  [[nodiscard]] std::string take() { return std::exchange(lines_, {}); }

 private:
  std::string lines_;
  time_point until_;
};

}  // namespace runner
