#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace runner {

/// The time in front of a line: "2026-11-15T10:02:03.123456+01:00 ", local time.
///
/// The calendar is asked once a second; in between only the microseconds are written.
class line_stamp final {
 public:
  static constexpr std::size_t kSize = 33;

  /// Makes `text` the time that it is now.
  void set_to_now() noexcept;
  [[nodiscard]] std::string_view text() const noexcept { return {text_.data(), kSize}; }

 private:
  void set_second(std::int64_t second) noexcept;

  std::array<char, kSize> text_{};
  std::int64_t second_ = -1;
};

/// The moment that stands in front of a line, in microseconds since 1970; nothing when none does.
std::optional<std::int64_t> parse_stamp(std::string_view line) noexcept;

/// What `stamp_lines` has done.
struct stamped {
  std::size_t taken = 0;    ///< Bytes of the text.
  std::size_t written = 0;  ///< Bytes at `out`.
};

/// Copies as much of `text` as fits, with `stamp` in front of each line that begins in it.
/// @param is_line_open whether the text begins in the middle of a line.
/// @param out more than a stamp long.
stamped stamp_lines(std::string_view text, bool is_line_open, std::string_view stamp,
                    std::span<char> out) noexcept;

}  // namespace runner
