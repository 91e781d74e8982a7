#include "runner/file/values.h"

#include <csignal>
#include <iterator>
#include <limits>

#include "common/misc/decimal.h"

namespace runner {
namespace {

constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();

struct named_number {
  std::string_view name;
  std::uint64_t number;
};

template <std::size_t Size>
std::optional<std::uint64_t> find_number(const named_number (&table)[Size], std::string_view name) {
  for (const named_number& one : table) {
    if (one.name == name) return one.number;
  }
  return {};
}

constexpr named_number kSizeUnits[] = {
    {"", 1},
    {"B", 1},
    {"K", 1ULL << 10},
    {"KB", 1ULL << 10},
    {"KiB", 1ULL << 10},
    {"M", 1ULL << 20},
    {"MB", 1ULL << 20},
    {"MiB", 1ULL << 20},
    {"G", 1ULL << 30},
    {"GB", 1ULL << 30},
    {"GiB", 1ULL << 30},
    {"T", 1ULL << 40},
    {"TB", 1ULL << 40},
    {"TiB", 1ULL << 40},
};

/// Of two names for one signal the first is the one that is shown.
constexpr named_number kSignals[] = {
    {"HUP", SIGHUP},       {"INT", SIGINT},       {"QUIT", SIGQUIT},   {"ILL", SIGILL},
    {"TRAP", SIGTRAP},     {"ABRT", SIGABRT},     {"BUS", SIGBUS},     {"FPE", SIGFPE},
    {"KILL", SIGKILL},     {"USR1", SIGUSR1},     {"SEGV", SIGSEGV},   {"USR2", SIGUSR2},
    {"PIPE", SIGPIPE},     {"ALRM", SIGALRM},     {"TERM", SIGTERM},   {"CHLD", SIGCHLD},
    {"CONT", SIGCONT},     {"STOP", SIGSTOP},     {"TSTP", SIGTSTP},   {"TTIN", SIGTTIN},
    {"TTOU", SIGTTOU},     {"URG", SIGURG},       {"XCPU", SIGXCPU},   {"XFSZ", SIGXFSZ},
    {"PROF", SIGPROF},     {"VTALRM", SIGVTALRM}, {"WINCH", SIGWINCH}, {"IO", SIGIO},
    {"PWR", SIGPWR},       {"SYS", SIGSYS},       {"POLL", SIGPOLL},
#ifdef SIGSTKFLT
    {"STKFLT", SIGSTKFLT},
#endif
};

std::optional<rlim_t> parse_one_limit(std::string_view text, limit_unit unit) {
  if (text == "unlimited" || text == "infinity") return RLIM_INFINITY;
  const auto number = unit == limit_unit::bytes ? parse_size(text) : parse_count(text);
  // The largest number means "unlimited" to the system, and a typing error to everybody else.
  if (!number || *number >= RLIM_INFINITY) return {};
  return *number;
}

}  // namespace

std::optional<bool> parse_truth(std::string_view text) {
  constexpr named_number kTruths[] = {{"yes", 1}, {"on", 1},  {"true", 1},  {"1", 1},
                                      {"no", 0},  {"off", 0}, {"false", 0}, {"0", 0}};
  const auto found = find_number(kTruths, text);
  if (!found) return {};
  return *found != 0;
}

std::optional<std::uint64_t> parse_count(std::string_view text) {
  const auto number = take_digits(text);
  return text.empty() ? number : std::nullopt;
}

std::optional<int> parse_integer(std::string_view text, int least, int most) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  const auto size = parse_count(text);
  if (!size || *size > 1000000) return {};
  const int number = negative ? -static_cast<int>(*size) : static_cast<int>(*size);
  if (number < least || number > most) return {};
  return number;
}

std::optional<unsigned> parse_mode(std::string_view text) {
  if (text.empty() || text.size() > 5) return {};
  unsigned mode = 0;
  for (const char c : text) {
    if (c < '0' || c > '7') return {};
    mode = mode * 8 + static_cast<unsigned>(c - '0');
  }
  if (mode > 0777) return {};
  return mode;
}

std::optional<std::uint64_t> parse_size(std::string_view text) {
  const auto number = take_digits(text);
  const auto unit = find_number(kSizeUnits, text);
  if (!number || !unit || *number > kMost / *unit) return {};
  return *number * *unit;
}

std::optional<int> parse_signal(std::string_view text) {
  if (const auto number = parse_count(text)) {
    if (*number < 1 || *number > 64) return {};
    return static_cast<int>(*number);
  }
  if (text.starts_with("SIG")) text.remove_prefix(3);
  const auto found = find_number(kSignals, text);
  if (!found) return {};
  return static_cast<int>(*found);
}

std::string signal_name(int signal) {
  for (const named_number& one : kSignals) {
    if (one.number == static_cast<std::uint64_t>(signal)) return std::string(one.name);
  }
  return std::to_string(signal);
}

std::optional<unsigned> parse_processors(std::string_view text) {
  const bool percent = text.ends_with('%');
  if (percent) text.remove_suffix(1);
  const auto thousandths = take_thousandths(text);
  if (!thousandths || !text.empty()) return {};
  const std::uint64_t hundredths = *thousandths / (percent ? 1000 : 10);
  if (hundredths < 1 || hundredths > 1000000) return {};
  return static_cast<unsigned>(hundredths);
}

std::optional<rlimit> parse_limit(std::string_view text, limit_unit unit) {
  const std::size_t colon = text.find(':');
  const auto soft = parse_one_limit(text.substr(0, colon), unit);
  const auto hard =
      colon == std::string_view::npos ? soft : parse_one_limit(text.substr(colon + 1), unit);
  if (!soft || !hard || *soft > *hard) return {};
  return rlimit{*soft, *hard};
}

}  // namespace runner
