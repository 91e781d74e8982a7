#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace runner {

/// Counts the lines that could not be written, until they can be told of.
class lost_lines final {
 public:
  [[nodiscard]] bool any() const { return count_ > 0 || is_inside_; }
  /// The error number of the last loss.
  [[nodiscard]] int reason() const { return reason_; }
  /// Whether the last loss ended in the middle of a line. The rest of that line is lost as well.
  [[nodiscard]] bool is_inside() const { return is_inside_; }

  /// Counts the lines of `text`. A last one without an end counts when its end is there.
  void add(std::string_view text, int reason);
  /// What of `text` does not belong to a line that is lost already.
  [[nodiscard]] std::string_view skip(std::string_view text);
  /// "3 lines lost: No space left on device".
  [[nodiscard]] std::string report() const;
  void clear() { *this = {}; }

 private:
  std::uint64_t count_ = 0;
  bool is_inside_ = false;
  int reason_ = 0;
};

}  // namespace runner
