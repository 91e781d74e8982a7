#include "common/misc/duration.h"

#include <cstdint>

#include "common/misc/decimal.h"

namespace {

/// In milliseconds; 0 for what is no unit.
std::uint64_t length_of(std::string_view unit) {
  if (unit.empty() || unit == "s") return 1000;
  if (unit == "ms") return 1;
  if (unit == "m" || unit == "min") return 60000;
  if (unit == "h") return 3600000;
  if (unit == "d") return 86400000;
  return 0;
}

}  // namespace

std::optional<std::chrono::milliseconds> parse_duration(std::string_view text) {
  constexpr auto kLongest = static_cast<std::uint64_t>(kLongestDuration.count());
  const auto thousandths = take_thousandths(text);
  const std::uint64_t unit = length_of(text);
  if (!thousandths || unit == 0 || *thousandths > kLongest * 1000 / unit) return {};
  return std::chrono::milliseconds(*thousandths * unit / 1000);
}
