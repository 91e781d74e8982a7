#include "runner/log/rotated_name.h"

#include <dirent.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <tuple>

#include "runner/log/calendar.h"
#include "runner/log/digits.h"

namespace runner {

namespace {

/// "20261115T090203.123456Z".
constexpr std::size_t kMomentSize = 23;
constexpr std::array<std::string_view, 3> kEndings = {"", ".gz", ".gz.tmp"};

using microseconds = std::chrono::microseconds;

struct directory_closer {
  void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

void append_moment(std::string& out, std::int64_t moment) {
  const std::chrono::sys_time<microseconds> time{microseconds(moment)};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  std::array<char, kMomentSize> text{};
  char* to = put_digits(text.data(), static_cast<unsigned long>(static_cast<int>(date.year())), 4);
  to = put_digits(to, static_cast<unsigned>(date.month()), 2);
  to = put_digits(to, static_cast<unsigned>(date.day()), 2);
  *to++ = 'T';
  to = put_digits(to, static_cast<unsigned long>(clock.hours().count()), 2);
  to = put_digits(to, static_cast<unsigned long>(clock.minutes().count()), 2);
  to = put_digits(to, static_cast<unsigned long>(clock.seconds().count()), 2);
  *to++ = '.';
  to = put_digits(to, static_cast<unsigned long>(clock.subseconds().count()), 6);
  *to = 'Z';
  out.append(text.data(), text.size());
}

std::optional<std::int64_t> parse_moment(std::string_view text) {
  if (text[8] != 'T' || text[15] != '.' || text[22] != 'Z') return std::nullopt;
  return to_moment({number_in(text.substr(0, 4)), number_in(text.substr(4, 2)),
                    number_in(text.substr(6, 2)), number_in(text.substr(9, 2)),
                    number_in(text.substr(11, 2)), number_in(text.substr(13, 2)),
                    number_in(text.substr(16, 6))});
}

}  // namespace

std::string rotated_path(std::string_view path, const rotated_name& name) {
  std::string out(path);
  out += '.';
  append_moment(out, name.moment);
  out += kEndings[static_cast<std::size_t>(name.what)];
  return out;
}

std::optional<rotated_name> parse_rotated(std::string_view text) {
  if (text.size() < kMomentSize) return std::nullopt;
  const auto ending = std::find(kEndings.begin(), kEndings.end(), text.substr(kMomentSize));
  const auto moment = parse_moment(text.substr(0, kMomentSize));
  if (ending == kEndings.end() || !moment) return std::nullopt;
  return rotated_name{*moment, static_cast<rotated_name::kind>(ending - kEndings.begin())};
}

std::vector<rotated_name> find_rotated(const std::string& path) {
  std::vector<rotated_name> found;
  const std::size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::string begin = path.substr(slash + 1) + ".";
  const std::unique_ptr<DIR, directory_closer> entries(::opendir(directory.c_str()));
  if (!entries) return found;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else reads this one.
  while (const dirent* entry = ::readdir(entries.get())) {
    const std::string_view name = entry->d_name;
    if (!name.starts_with(begin)) continue;
    if (const auto one = parse_rotated(name.substr(begin.size()))) found.push_back(*one);
  }
  std::sort(found.begin(), found.end(), [](const rotated_name& a, const rotated_name& b) {
    return std::tie(a.moment, a.what) < std::tie(b.moment, b.what);
  });
  return found;
}

}  // namespace runner
