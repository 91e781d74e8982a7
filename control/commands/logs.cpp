#include "control/commands/logs.h"

#include <algorithm>
#include <cstdio>

#include "control/commands/program_names.h"
#include "control/logs/log_location.h"
#include "control/logs/program_lines.h"
#include "control/site/directory_watch.h"
#include "control/text/failure.h"
#include "control/text/table.h"

namespace control {
namespace {

using line_lists = std::vector<std::vector<program_line>>;

/// Writes lines to standard output, with the names of their logs where there are several.
class line_printer final {
 public:
  line_printer(const terminal& out, const std::vector<program_log_file>& files)
      : out_(out), files_(files) {
    for (const program_log_file& one : files)
      width_ = std::max(width_, one.label.size());
  }

  void print(const std::vector<program_line>& lines) const {
    for (const program_line& line : lines) {
      std::string text = out_.is_terminal() ? shown(line.text) : line.text;
      if (files_.size() > 1) {
        std::string label = files_[line.log].label;
        label.resize(width_, ' ');
        text.insert(0, out_.painted(label, tone::faint) + "  ");
      }
      text += '\n';
      std::fwrite(text.data(), 1, text.size(), stdout);
    }
    std::fflush(stdout);
  }

 private:
  /// A tab does nothing to a terminal but move its cursor to the next tab stop.
  static std::string shown(const std::string& text) {
    std::string safe = printable(text);
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '\t') safe[i] = '\t';
    }
    return safe;
  }

  const terminal& out_;
  const std::vector<program_log_file>& files_;
  std::size_t width_ = 0;
};

std::vector<program_line> past_lines(std::vector<program_lines>& logs,
                                     const logs_options& options) {
  line_lists lists;
  for (program_lines& log : logs)
    lists.push_back(log.last(options.count, options.follow));
  std::vector<program_line> lines = merge(std::move(lists));
  if (lines.size() > options.count)
    lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(options.count));
  return lines;
}

[[noreturn]] void follow(std::vector<program_lines>& logs, const line_printer& printer,
                         const directory_watch& watch) {
  for (;;) {
    line_lists lists;
    for (program_lines& log : logs)
      lists.push_back(log.next());
    printer.print(merge(std::move(lists)));
    watch.wait();
  }
}

log_locations find_logs(const session& here, const logs_options& options) {
  const snapshot now = here.look();
  log_locations found =
      locate_logs(now, here.place, pick_programs(now, options.names, options.all));
  if (found.files.empty())
    throw failure(found.elsewhere.empty() ? "there is no program" : found.elsewhere.front());
  return found;
}

}  // namespace

int run_logs(const session& here, const logs_options& options) {
  const log_locations found = find_logs(here, options);
  for (const std::string& text : found.elsewhere)
    warn(here, text);
  // Before anything is read, so that nothing falls between.
  const directory_watch watch;
  std::vector<program_lines> logs;
  for (const program_log_file& file : found.files) {
    watch.add_directory_of(file.path);
    logs.emplace_back(file.path, logs.size());
  }
  const line_printer printer(here.out, found.files);
  const std::vector<program_line> lines = past_lines(logs, options);
  printer.print(lines);
  if (options.follow) follow(logs, printer, watch);
  if (lines.empty() && options.count > 0)
    warn(here, "there is nothing in " + found.files.front().path);
  return exit_status::kDone;
}

}  // namespace control
