#include "common/misc/decimal.h"

#include <limits>

namespace {

constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

}  // namespace

std::optional<std::uint64_t> take_digits(std::string_view& text) {
  if (text.empty() || !is_digit(text.front())) return {};
  std::uint64_t number = 0;
  while (!text.empty() && is_digit(text.front())) {
    const auto digit = static_cast<std::uint64_t>(text.front() - '0');
    if (number > (kMost - digit) / 10) return {};
    number = number * 10 + digit;
    text.remove_prefix(1);
  }
  return number;
}

std::optional<std::uint64_t> take_thousandths(std::string_view& text) {
  std::uint64_t whole = 0;
  const bool has_whole = !text.empty() && is_digit(text.front());
  if (has_whole) {
    const auto digits = take_digits(text);
    if (!digits || *digits > kMost / 1000 - 1) return {};
    whole = *digits;
  }
  std::uint64_t fraction = 0;
  if (!text.empty() && text.front() == '.') {
    text.remove_prefix(1);
    if (text.empty() || !is_digit(text.front())) return {};
    for (std::uint64_t weight = 100; !text.empty() && is_digit(text.front()); weight /= 10) {
      fraction += static_cast<std::uint64_t>(text.front() - '0') * weight;
      text.remove_prefix(1);
    }
  } else if (!has_whole) {
    return {};
  }
  return whole * 1000 + fraction;
}
