#include "control/commands/status_watch.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <unordered_map>

#include "control/commands/status_report.h"
#include "control/site/memory_meter.h"
#include "control/site/name_filter.h"
#include "control/text/failure.h"
#include "control/text/quantity.h"
#include "control/text/raw_keyboard.h"
#include "control/text/table.h"

namespace control {
namespace {

constexpr std::chrono::seconds kEvery{2};

/// A program and how it has changed.
struct watched {
  program_status status;
  int starts = 0;      ///< Since the watch began.
  double percent = 0;  ///< Of one processor, since the last look.
};

/// Remembers what the last looks saw.
class history final {
 public:
  watched note(const program_status& one, double uptime) {
    past& before = past_[one.name];
    watched now{one};
    if (before.uptime > 0 && one.cpu_seconds >= before.cpu && uptime > before.uptime) {
      now.percent = 100 * (one.cpu_seconds - before.cpu) / (uptime - before.uptime);
    }
    // A child is new with each start; the first look counts none.
    if (one.child && before.uptime > 0 && !one.child->same_as(before.child)) ++before.starts;
    if (one.child) before.child = *one.child;
    before.cpu = one.cpu_seconds;
    before.uptime = uptime;
    now.starts = before.starts;
    return now;
  }

 private:
  struct past {
    process child;
    double cpu = 0;
    double uptime = 0;
    int starts = 0;
  };
  std::unordered_map<std::string, past> past_;
};

void sort_by(char key, const snapshot& now, std::vector<watched>& rows) {
  const auto age = [&](const watched& one) {
    return one.status.program ? now.age_of(*one.status.program) : 1e18;
  };
  const auto by = [&](const auto& less) { std::stable_sort(rows.begin(), rows.end(), less); };
  if (key == 'n') by([](const auto& a, const auto& b) { return a.status.name < b.status.name; });
  if (key == 'c') by([](const auto& a, const auto& b) { return a.percent > b.percent; });
  if (key == 'm')
    by([](const auto& a, const auto& b) { return a.status.memory > b.status.memory; });
  if (key == 's') by([](const auto& a, const auto& b) { return a.starts > b.starts; });
  if (key == 'u') by([&](const auto& a, const auto& b) { return age(a) < age(b); });
}

std::string percent(double value) {
  char text[16];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

std::string rows_as_text(const session& here, const snapshot& now,
                         const std::vector<watched>& rows) {
  using enum table::align;
  table lines({{"NAME"},
               {"WANTED"},
               {"ACTUAL"},
               {"PID", right},
               {"UP", right},
               {"CPU%", right},
               {"MEMORY", right},
               {"PROCS", right},
               {"STARTS", right},
               {"WHY", left, true}});
  for (const watched& row : rows) {
    const program_status& one = row.status;
    const bool up = one.program.has_value();
    lines.add({{printable(one.name)},
               {one.wanted.empty() ? "-" : printable(one.wanted)},
               {name_of(one.now), tone_of(one.now)},
               {up ? std::to_string(one.program->pid) : "-"},
               {up ? format_duration(now.age_of(*one.program)) : "-"},
               {up ? percent(row.percent) : "-"},
               {format_size(one.memory)},
               {one.tree.empty() ? "-" : std::to_string(one.tree.size())},
               {std::to_string(row.starts)},
               {printable(one.why)}});
  }
  return lines.print(here.out);
}

/// From the top of the screen, each line to its end, what is below cleared, and no line more than
/// there is room for. Lines that are too long are cut meanwhile and not wrapped.
std::string as_screen(const std::string& text, int height) {
  std::string screen = "\033[?7l\033[H";
  int lines = 0;
  for (std::size_t at = 0; at < text.size() && lines < height;) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    screen += (lines++ == 0 ? "" : "\r\n") + text.substr(at, end - at) + "\033[K";
    at = end + 1;
  }
  return screen + "\033[J\033[?7h";
}

}  // namespace

int watch_status(const session& here, const status_options& options) {
  if (!here.out.is_terminal() || ::isatty(STDIN_FILENO) == 0) {
    throw failure("--watch needs a terminal; --json is for programs", exit_status::kUsage);
  }
  const name_filter filter(options.names);
  const raw_keyboard keyboard;
  history seen;
  memory_meter meter;
  char order = 0;
  for (;;) {
    const snapshot now = here.look();
    std::vector<program_status> programs = list_programs(now, here.place);
    const std::string counts = count_programs(programs);
    std::erase_if(programs, [&](const program_status& one) { return !filter.fits(one.name); });
    meter.measure(here.proc, programs);
    std::vector<watched> rows;
    rows.reserve(programs.size());
    for (const program_status& one : programs)
      rows.push_back(seen.note(one, now.uptime));
    sort_by(order, now, rows);
    const status_report report{here, now, programs, counts};
    const std::string keys = here.out.painted(
        "q ends; sort by n name, c cpu, m memory, u up, s starts, f file", tone::faint);
    const std::string screen =
        as_screen(report.head() + keys + "\n" + rows_as_text(here, now, rows), here.out.height());
    std::fwrite(screen.data(), 1, screen.size(), stdout);
    std::fflush(stdout);
    const char key = keyboard.wait(kEvery);
    if (key == 'q') return exit_status::kDone;
    if (key != 0) order = key;
  }
}

}  // namespace control
