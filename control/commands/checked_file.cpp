#include "control/commands/checked_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "control/check/check_config.h"
#include "control/text/failure.h"
#include "control/text/table.h"

namespace control {

checked_file check_file(const session& here, const snapshot& now, const std::string& path) {
  const bool is_present = path.empty();
  checked_file file;
  file.shown_as = is_present ? "config/server.ini" : path;
  const auto config = read_config(is_present ? here.place.config_file() : path);
  if (!config) {
    throw failure("cannot read " + file.shown_as + ": " + std::strerror(errno) +
                      (is_present ? ". `keelmondctl init` makes one" : ""),
                  2);
  }
  file.config = *config;
  file.programs = read_programs(parse_config(config->text), here.place.directory);
  const ini_document document(config->text);
  const process_table processes(here.proc);
  file.found = check_config({here.place, now, processes, document, file.programs, is_present});
  return file;
}

std::string findings_as_text(const checked_file& file) {
  std::string text;
  for (const finding& one : file.found) {
    text += (one.file.empty() ? file.shown_as : one.file) + ":";
    if (one.line > 0) text += std::to_string(one.line) + ":";
    text += one.how == finding::severity::error ? " error: " : " warning: ";
    text += printable(one.text) + "; " + printable(one.remedy) + "\n";
  }
  return text;
}

int status_for(const std::vector<finding>& found) {
  const auto is_error = [](const finding& one) { return one.how == finding::severity::error; };
  if (std::any_of(found.begin(), found.end(), is_error)) return 2;
  return found.empty() ? 0 : 1;
}

}  // namespace control
