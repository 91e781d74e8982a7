#include "control/commands/check.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "control/check/plan.h"
#include "control/commands/checked_file.h"
#include "control/text/failure.h"
#include "control/text/table.h"

namespace control {
namespace {

using nlohmann::ordered_json;

void print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

/// What a load acts on, by name and number.
ordered_json loaded_entries(const checked_file& file) {
  ordered_json list = ordered_json::array();
  for (const listed_program& program : file.programs) {
    if (!why_skipped(program).empty()) continue;
    list.push_back({{"number", program.number},
                    {"name", program.name},
                    {"exepath", program.exepath},
                    {"state", program.state}});
  }
  return list;
}

std::string as_json(const checked_file& file) {
  ordered_json list = ordered_json::array();
  for (const finding& one : file.found) {
    list.push_back({{"file", one.file.empty() ? file.shown_as : one.file},
                    {"line", one.line == 0 ? ordered_json() : ordered_json(one.line)},
                    {"severity", one.how == finding::severity::error ? "error" : "warning"},
                    {"text", one.text},
                    {"remedy", one.remedy}});
  }
  const ordered_json whole = {{"schema", "keelmondctl.check"},
                              {"version", 1},
                              {"file", file.shown_as},
                              {"loaded", loaded_entries(file)},
                              {"findings", list}};
  return whole.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

tone tone_of(planned_step::action what) {
  switch (what) {
    case planned_step::action::start:
      return tone::good;
    case planned_step::action::stop:
    case planned_step::action::skip:
      return tone::warning;
    default:
      return tone::plain;
  }
}

}  // namespace

int run_check(const session& here, const check_options& options) {
  const checked_file file = check_file(here, here.look(), options.file);
  print(options.json ? as_json(file) : findings_as_text(file));
  if (!options.json && file.found.empty()) say(file.shown_as + ": nothing found");
  return status_for(file.found);
}

std::string plan_as_text(const session& here, const snapshot& now,
                         const std::vector<listed_program>& programs) {
  const std::vector<planned_step> steps = make_plan(programs, now);
  if (steps.empty()) return "no programs\n";
  table rows({{"NAME"}, {"AT THE NEXT LOAD", table::align::left, true}});
  for (const planned_step& step : steps)
    rows.add({{printable(step.name)}, {printable(step.text), tone_of(step.what)}});
  return rows.print(here.out);
}

int run_plan(const session& here, const plan_options& options) {
  const snapshot now = here.look();
  require_visible(here, now.search);
  const std::string path = options.file.empty() ? here.place.config_file() : options.file;
  const auto config = read_config(path);
  if (!config)
    throw failure("cannot read " + path + ": " + std::strerror(errno) +
                  (options.file.empty() ? ". `keelmondctl init` makes one" : ""));
  if (!now.search.daemon) say("No keelmond runs here; this is what its start would do.");
  std::vector<listed_program> programs =
      merge_repeated(read_programs(parse_config(config->text), here.place.directory));
  if (options.file.empty() && counts_as_empty(now, here.place)) {
    say("keelmond's user may not write " + path + ", so it counts as empty.");
    programs.clear();
  }
  print(plan_as_text(here, now, programs));
  return exit_status::kDone;
}

}  // namespace control
