#pragma once

#include <sys/resource.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Values of a program file, from the text that stands in it. Each gives nothing for a text that is
/// not wholly such a value.
namespace runner {

/// "yes", "on", "true", "1"; "no", "off", "false", "0".
std::optional<bool> parse_truth(std::string_view text);
/// Decimal digits.
std::optional<std::uint64_t> parse_count(std::string_view text);
/// The same with a sign, from `least` to `most`.
std::optional<int> parse_integer(std::string_view text, int least, int most);
/// Octal digits, at most 0777.
std::optional<unsigned> parse_mode(std::string_view text);
/// Bytes: digits, then K, M, G or T for powers of 1024, if anything, with or without a "B" or "iB".
std::optional<std::uint64_t> parse_size(std::string_view text);
/// "TERM", "SIGTERM" or a number from 1 to 64.
std::optional<int> parse_signal(std::string_view text);
/// "TERM"; the number for one that has no name.
std::string signal_name(int signal);
/// Hundredths of one processor: "50%" is 50, "1.5" is 150.
std::optional<unsigned> parse_processors(std::string_view text);

/// Whether a limit counts bytes, and takes the units of sizes.
enum class limit_unit { number, bytes };
/// "SOFT", which stands for both, or "SOFT:HARD"; "unlimited" for none. The soft one is not above
/// the hard one.
std::optional<rlimit> parse_limit(std::string_view text, limit_unit unit);

}  // namespace runner
