#include "control/commands/metrics.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

#include "common/misc/small_file.h"
#include "common/misc/unique_fd.h"
#include "control/site/program_status.h"
#include "control/text/failure.h"

namespace control {
namespace {

/// The text of a label. Three characters are escaped, and all beyond ASCII is replaced: a byte that
/// is not UTF-8 would make the whole file invalid.
std::string label(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\' || c == '"') escaped += '\\';
    if (c == '\n') {
      escaped += "\\n";
    } else {
      escaped += static_cast<unsigned char>(c) >= 0x80 ? '?' : c;
    }
  }
  return escaped;
}

/// One metric: what it is, and a line for each of its values.
class metric final {
 public:
  metric(std::string name, const char* type, const char* help)
      : name_(std::move(name)),
        text_("# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " " + type + "\n") {}

  void add(double value) { add_line("", value); }
  void add(const std::string& program, double value) {
    add_line("{program=\"" + label(program) + "\"}", value);
  }
  /// Nothing when there are no values.
  [[nodiscard]] std::string text() const { return has_values_ ? text_ : std::string(); }

 private:
  void add_line(const std::string& labels, double value) {
    char number[32];
    std::snprintf(number, sizeof number, " %.15g\n", value);
    text_ += name_ + labels + number;
    has_values_ = true;
  }

  std::string name_;
  std::string text_;
  bool has_values_ = false;
};

std::string log_metrics(const session& here) {
  metric starts("keelmond_program_starts_total", "counter",
                "Starts of programs, of all together, that the log tells of.");
  metric ends("keelmond_program_ends_total", "counter",
              "Ends of programs, of all together, that the log tells of.");
  const log_counts counts = count_events(here.place.log_file());
  starts.add(static_cast<double>(counts.launched));
  ends.add(static_cast<double>(counts.ended));
  return starts.text() + ends.text();
}

std::string daemon_metrics(const snapshot& now) {
  metric up("keelmond_up", "gauge", "Whether keelmond runs in this directory.");
  metric start("keelmond_start_time_seconds", "gauge", "When keelmond was started, since 1970.");
  up.add(now.search.daemon ? 1 : 0);
  if (now.search.daemon) start.add(static_cast<double>(now.start_of(*now.search.daemon)));
  return up.text() + start.text();
}

std::string program_metrics(const session& here, const snapshot& now) {
  metric wanted("keelmond_program_wanted", "gauge", "Whether the program is set to run.");
  metric up("keelmond_program_up", "gauge", "Whether the program is alive.");
  metric start("keelmond_program_start_time_seconds", "gauge",
               "When the program was started, since 1970.");
  metric cpu("keelmond_program_cpu_seconds_total", "counter",
             "Processor time of the program and all below it.");
  metric memory("keelmond_program_resident_memory_bytes", "gauge",
                "Resident memory of the program and all below it.");
  metric processes("keelmond_program_processes", "gauge", "Processes of the program.");
  std::set<std::string> seen;
  for (const program_status& one : list_programs(now, here.place)) {
    // No two values may have the same label.
    if (!seen.insert(one.name).second) continue;
    wanted.add(one.name, one.wanted == "run" ? 1 : 0);
    up.add(one.name, one.program ? 1 : 0);
    processes.add(one.name, static_cast<double>(one.tree.size()));
    if (!one.program) continue;
    start.add(one.name, static_cast<double>(now.start_of(*one.program)));
    cpu.add(one.name, one.cpu_seconds);
    std::uint64_t resident = 0;
    for (const process& below : one.tree)
      resident += here.proc.resident(below.pid);
    memory.add(one.name, static_cast<double>(resident));
  }
  return wanted.text() + up.text() + start.text() + cpu.text() + memory.text() + processes.text();
}

/// Whoever collects the file sees a whole one.
void write_textfile(const std::string& path, const std::string& text) {
  const std::string draft = path + "." + std::to_string(::getpid());
  const unique_fd file(
      ::open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (!file.valid() || !write_whole(file.get(), text) ||
      ::rename(draft.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(draft.c_str());
    throw failure("cannot write " + path + ": " + std::strerror(error));
  }
}

}  // namespace

int run_metrics(const session& here, const metrics_options& options) {
  const snapshot now = here.look();
  require_visible(here, now.search);
  const std::string text = daemon_metrics(now) + program_metrics(here, now) + log_metrics(here);
  if (options.textfile.empty()) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
  } else {
    write_textfile(options.textfile, text);
  }
  return exit_status::kDone;
}

}  // namespace control
