#pragma once

#include <chrono>
#include <optional>
#include <string_view>

/// The longest duration that anybody may ask for: a hundred years. What is longer is a mistake, and
/// much longer is more than a clock can count.
inline constexpr std::chrono::milliseconds kLongestDuration = std::chrono::hours(24) * 36525;

/// A duration as people write it: "0.2", "500ms", "10s", "1.5m", "2h", "3d"; a bare number is
/// seconds. @return nothing for any other text, and for what is longer than `kLongestDuration`.
std::optional<std::chrono::milliseconds> parse_duration(std::string_view text);
