#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

/// Takes the digits at the beginning of a text away. @return nothing when there are none or too
/// many.
std::optional<std::uint64_t> take_digits(std::string_view& text);
/// Takes a number away that may have a fraction, in thousandths; further digits are cut off.
std::optional<std::uint64_t> take_thousandths(std::string_view& text);
