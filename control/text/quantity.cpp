#include "control/text/quantity.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "common/misc/duration.h"

namespace control {
namespace {

[[gnu::format(printf, 1, 2)]] std::string print(const char* format, ...) {
  char text[64];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

/// Fills in what a local time text gives. @return false when it has another form.
bool parse_local(const std::string& text, std::tm& out) {
  for (const char* const format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M",
                                   "%Y-%m-%d", "%H:%M:%S", "%H:%M"}) {
    std::tm tried = out;
    const char* const end = ::strptime(text.c_str(), format, &tried);
    if (end == nullptr || *end != '\0') continue;
    out = tried;
    return true;
  }
  return false;
}

}  // namespace

std::string format_duration(double seconds) {
  const auto whole = static_cast<long>(seconds);
  if (whole < 60) return print("%lds", whole);
  if (whole < 3600) return print("%ldm %02lds", whole / 60, whole % 60);
  if (whole < 86400) return print("%ldh %02ldm", whole / 3600, whole / 60 % 60);
  return print("%ldd %ldh", whole / 86400, whole / 3600 % 24);
}

std::string format_short_duration(double seconds) {
  if (seconds < 0.9995) return print("%.0fms", seconds * 1000);
  if (seconds < 59.95) return print("%.1fs", seconds);
  return format_duration(seconds);
}

std::string format_size(std::uint64_t bytes) {
  if (bytes == 0) return "-";
  double amount = static_cast<double>(bytes) / 1024;
  const char* unit = "K";
  for (const char* const larger : {"M", "G", "T"}) {
    if (amount < 1000) break;
    amount /= 1024;
    unit = larger;
  }
  return print(amount < 99.95 && *unit != 'K' ? "%.1f%s" : "%.0f%s", amount, unit);
}

std::string format_utc(std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm utc{};
  ::gmtime_r(&time, &utc);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

std::string format_local(std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm local{};
  ::localtime_r(&time, &local);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

std::optional<std::int64_t> parse_moment(const std::string& text, std::int64_t now) {
  if (const auto ago = parse_duration(text)) return now - ago->count() / 1000;
  const std::time_t time = now;
  std::tm local{};
  ::localtime_r(&time, &local);
  local.tm_hour = local.tm_min = local.tm_sec = 0;
  if (!parse_local(text, local)) return {};
  local.tm_isdst = -1;
  return static_cast<std::int64_t>(std::mktime(&local));
}

}  // namespace control
