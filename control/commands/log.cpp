#include "control/commands/log.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <limits>
#include <system_error>
#include <thread>

#include "control/site/log_follower.h"
#include "control/site/log_names.h"
#include "control/text/failure.h"
#include "control/text/quantity.h"
#include "control/text/table.h"

namespace control {
namespace {

using kind = log_event::kind;

/// What the last events are looked for in first; each takes about half of this at most, unless its
/// path is long.
constexpr std::int64_t kBytesForEvent = 256;
/// The same for those since a time.
constexpr std::int64_t kBytesForTime = std::int64_t{1} << 20;
/// How many times more is read when that was not enough.
constexpr std::int64_t kMore = 4;

const char* name_of(kind what) {
  switch (what) {
    case kind::supervisor_started:
      return "supervisor_started";
    case kind::supervisor_ended:
      return "supervisor_ended";
    case kind::launched:
      return "program_started";
    case kind::ended:
      return "program_ended";
    case kind::not_executable:
      return "not_executable";
    case kind::refused:
      return "refused";
    case kind::other:
      return "other";
  }
  return "other";
}

std::string text_of(const log_event& event) {
  const std::string who = event.program.empty() ? "a program" : event.program;
  switch (event.what) {
    case kind::supervisor_started:
      return "keelmond was started by PID " + std::to_string(event.pid);
    case kind::supervisor_ended:
      return "keelmond closed its log";
    case kind::launched:
      return who + " was started (child PID " + std::to_string(event.pid) + ")";
    case kind::ended:
      return who + " ended";
    default:
      return event.message;
  }
}

std::string json_of(const log_event& event) {
  using nlohmann::ordered_json;
  const std::int64_t seconds = seconds_of(event);
  const ordered_json line = {
      {"time", seconds == 0 ? ordered_json() : ordered_json(format_utc(seconds))},
      {"event", name_of(event.what)},
      {"program", event.program.empty() ? ordered_json() : ordered_json(event.program)},
      {"pid", event.pid == 0 ? ordered_json() : ordered_json(event.pid)},
      {"message", event.message}};
  return line.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

void print(const session& here, const std::vector<log_event>& events, bool json) {
  for (const log_event& event : events) {
    std::string line = json_of(event);
    if (!json) {
      const std::string time = event.time.empty() ? std::string(19, '-') : event.time;
      line = here.out.painted(time, tone::faint) + "  " + printable(text_of(event));
    }
    std::printf("%s\n", line.c_str());
  }
  std::fflush(stdout);
}

/// The time that the option gives; the earliest of all without one.
std::int64_t begin_of(const log_options& options) {
  if (options.since.empty()) return std::numeric_limits<std::int64_t>::min();
  const auto since = parse_moment(options.since, static_cast<std::int64_t>(std::time(nullptr)));
  if (since) return *since;
  throw failure("\"" + options.since +
                    "\" is no time: give 10m, 2h, 2026-11-15 or "
                    "\"2026-11-15 10:00\"",
                exit_status::kUsage);
}

std::vector<log_event> past_events(const session& here, const log_options& options) {
  const std::int64_t since = begin_of(options);
  const bool all = !options.since.empty() && !options.count_given;
  const std::size_t count = all ? std::numeric_limits<std::size_t>::max() : options.count;
  std::int64_t bytes =
      all ? kBytesForTime
          : static_cast<std::int64_t>(std::min<std::size_t>(count, 1U << 24U)) * kBytesForEvent +
                4096;
  const std::string path = here.place.log_file();
  std::error_code none;
  const auto size = static_cast<std::int64_t>(std::filesystem::file_size(path, none));
  std::vector<log_event> events = read_last_events(path, bytes);
  // From the end on, for the log may be larger than the memory.
  const auto is_enough = [&] {
    return bytes >= size || events.size() >= count ||
           (!events.empty() && !events.front().time.empty() && seconds_of(events.front()) < since);
  };
  while (!none && !is_enough()) {
    bytes *= kMore;
    events = read_last_events(path, bytes);
  }
  if (!options.since.empty())
    std::erase_if(events, [&](const log_event& event) { return seconds_of(event) < since; });
  if (events.size() > count)
    events.erase(events.begin(), events.end() - static_cast<std::ptrdiff_t>(count));
  return events;
}

/// Whether a child that was launched just now cannot be named yet, because it has executed nothing.
bool is_too_early(const snapshot& now) {
  return std::any_of(now.running.begin(), now.running.end(),
                     [](const running_program& one) { return one.name.empty(); });
}

void name_new_events(const session& here, log_names& names, std::vector<log_event>& events) {
  constexpr int kLooks = 100;
  for (int i = 0; i < kLooks; ++i) {
    const snapshot now = here.look();
    names.name(events, now, true);
    if (!is_too_early(now)) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

[[noreturn]] void follow(const session& here, log_follower& follower, log_names& names, bool json) {
  for (;;) {
    std::vector<log_event> events = follower.read();
    if (!events.empty()) {
      name_new_events(here, names, events);
      print(here, events, json);
    }
    follower.wait();
  }
}

}  // namespace

int run_log(const session& here, const log_options& options) {
  // Before the past is read, so that nothing falls between.
  log_follower follower(here.place.log_file());
  std::vector<log_event> events = past_events(here, options);
  const snapshot now = here.look();
  log_names names;
  names.name(events, now, false);
  print(here, events, options.json);
  if (options.follow) follow(here, follower, names, options.json);
  if (events.empty() && options.since.empty())
    warn(here, "there is nothing in " + here.place.log_file());
  return exit_status::kDone;
}

}  // namespace control
