#include "runner/log/line_stamp.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "runner/log/calendar.h"
#include "runner/log/digits.h"
#include "runner/log/steady_time.h"

namespace runner {

namespace {

constexpr std::int64_t kSecond = 1'000'000;
/// Where the parts stand that change within a second, and what follows them.
constexpr std::size_t kFraction = 20;
constexpr std::size_t kOffset = 26;

char* put_field(char* out, int value, int digits, char behind) noexcept {
  out = put_digits(out, static_cast<unsigned long>(value), digits);
  *out = behind;
  return out + 1;
}

}  // namespace

void line_stamp::set_to_now() noexcept {
  const std::int64_t now = wall_now();
  const std::int64_t second = now / kSecond;
  if (second != second_) set_second(second);
  put_digits(text_.data() + kFraction, static_cast<unsigned long>(now % kSecond), 6);
}

void line_stamp::set_second(std::int64_t second) noexcept {
  const auto time = static_cast<std::time_t>(second);
  std::tm local{};
  ::localtime_r(&time, &local);
  char* out = text_.data();
  out = put_field(out, local.tm_year + 1900, 4, '-');
  out = put_field(out, local.tm_mon + 1, 2, '-');
  out = put_field(out, local.tm_mday, 2, 'T');
  out = put_field(out, local.tm_hour, 2, ':');
  out = put_field(out, local.tm_min, 2, ':');
  put_field(out, local.tm_sec, 2, '.');
  const int minutes = static_cast<int>(local.tm_gmtoff / 60);
  out = text_.data() + kOffset;
  *out++ = minutes < 0 ? '-' : '+';
  out = put_field(out, std::abs(minutes) / 60, 2, ':');
  put_field(out, std::abs(minutes) % 60, 2, ' ');
  second_ = second;
}

std::optional<std::int64_t> parse_stamp(std::string_view line) noexcept {
  constexpr std::string_view kShape = "0000-00-00T00:00:00.000000+00:00 ";
  if (line.size() < kShape.size()) return std::nullopt;
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    const bool is_right = kShape[i] == '0'   ? line[i] >= '0' && line[i] <= '9'
                          : kShape[i] == '+' ? line[i] == '+' || line[i] == '-'
                                             : line[i] == kShape[i];
    if (!is_right) return std::nullopt;
  }
  const auto number = [line](std::size_t at, std::size_t size) {
    return number_in(line.substr(at, size));
  };
  const auto local = to_moment({number(0, 4), number(5, 2), number(8, 2), number(11, 2),
                                number(14, 2), number(17, 2), number(kFraction, 6)});
  if (!local) return std::nullopt;
  const int minutes = number(kOffset + 1, 2) * 60 + number(kOffset + 4, 2);
  const std::int64_t ahead = std::int64_t{minutes} * 60 * kSecond;
  return line[kOffset] == '-' ? *local + ahead : *local - ahead;
}

stamped stamp_lines(std::string_view text, bool is_line_open, std::string_view stamp,
                    std::span<char> out) noexcept {
  const char* from = text.data();
  const char* const end = from + text.size();
  char* to = out.data();
  char* const limit = to + out.size();
  while (from != end) {
    if (!is_line_open) {
      // A stamp never stands alone: what comes next has to know whether a line is open.
      if (static_cast<std::size_t>(limit - to) <= stamp.size()) break;
      std::memcpy(to, stamp.data(), stamp.size());
      to += stamp.size();
    }
    const auto* line_end =
        static_cast<const char*>(std::memchr(from, '\n', static_cast<std::size_t>(end - from)));
    const char* const next = line_end == nullptr ? end : line_end + 1;
    const std::size_t length = static_cast<std::size_t>(std::min(next - from, limit - to));
    if (length == 0) break;
    std::memcpy(to, from, length);
    from += length;
    to += length;
    is_line_open = to[-1] != '\n';
  }
  return {static_cast<std::size_t>(from - text.data()), static_cast<std::size_t>(to - out.data())};
}

}  // namespace runner
