#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace control {

/// A duration in its two largest units: "4s", "2m 05s", "3h 07m", "12d 4h".
std::string format_duration(double seconds);
/// "850ms", "4.2s", "2m 05s": processor time, which is often short.
std::string format_short_duration(double seconds);
/// Bytes with a binary unit: "980K", "12.4M", "1.2G". "-" for 0, which nobody uses.
std::string format_size(std::uint64_t bytes);
/// "2026-11-15T10:02:03Z".
std::string format_utc(std::int64_t seconds);
/// "2026-11-15 10:02:03" in local time, as the log has it.
std::string format_local(std::int64_t seconds);

/// A moment: a duration ago, or a local "YYYY-MM-DD", "YYYY-MM-DD HH:MM[:SS]" or "HH:MM[:SS]" of
/// today. @return seconds since 1970.
std::optional<std::int64_t> parse_moment(const std::string& text, std::int64_t now);

}  // namespace control
