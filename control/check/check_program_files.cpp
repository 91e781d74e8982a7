#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <string>
#include <string_view>

#include "control/check/check_config.h"
#include "control/site/running_programs.h"
#include "runner/file/program_file.h"

namespace control {
namespace {

/// The longest first line of a script that the kernel reads.
constexpr std::size_t kLongestFirstLine = 256;

/// The path behind "#!".
std::string interpreter_of(const std::string& line) {
  const std::size_t begin = std::min(line.find_first_not_of(" \t", 2), line.size());
  return line.substr(begin, line.find_first_of(" \t", begin) - begin);
}

void check_interpreter(const std::string& path, const std::string& line, findings& out) {
  const std::string interpreter = interpreter_of(line);
  if (::access(interpreter.c_str(), X_OK) == 0) return;
  out.fail_in(path, 1, "there is no program " + interpreter + " to run this file",
              "name the keelmond-run that is installed");
}

/// Programs of the same supervisor that have to be ready first.
void check_needs(const check_subject& subject, const listed_program& program,
                 const runner::program_file& file, findings& out) {
  const std::size_t line = file.line_of("program", "needs");
  for (const std::string& name : file.program.needs) {
    const auto is_needed = [&](const listed_program& one) { return one.name == name; };
    if (name == program.name) {
      out.fail_in(program.exepath, line, "needs: " + name + " waits for itself", "take it out");
    } else if (!file.program.supervisor.empty()) {
      continue;
    } else if (std::none_of(subject.programs.begin(), subject.programs.end(), is_needed)) {
      out.warn_in(program.exepath, line, "needs: there is no program " + name + " in the list",
                  "write the name of one that is in config/server.ini");
    }
  }
}

void check_command(const listed_program& program, const runner::program_file& file, findings& out) {
  const std::string why = why_command_is_hit(program.name, file);
  if (why.empty()) return;
  out.fail_in(program.exepath, file.line_of("program", "command"), why,
              "give this file and its entry another name");
}

}  // namespace

std::string first_line_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string line(kLongestFirstLine, '\0');
  file.read(line.data(), static_cast<std::streamsize>(line.size()));
  line.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
  return line.substr(0, line.find_first_of("\r\n"));
}

std::string why_command_is_hit(const std::string& name, const runner::program_file& file) {
  const std::string seen = process_name_of(file.program.command.front());
  if (!matches_as_pattern(name, seen)) return "";
  return "the name " + name + " fits its own command " + seen +
         ": \"stop\" would hit it past keelmond-run";
}

void check_program_files(const check_subject& subject, findings& out) {
  std::set<std::string> seen;
  for (const listed_program& program : subject.programs) {
    if (program.refused != refusal::none || find_obstacle(program) != obstacle::none ||
        !seen.insert(program.exepath).second) {
      continue;
    }
    const std::string line = first_line_of(program.exepath);
    if (!runner::is_program_file(line)) continue;
    check_interpreter(program.exepath, line, out);
    const runner::program_file_result read = runner::read_program_file(program.exepath);
    for (const runner::file_finding& one : read.findings) {
      out.fail_in(program.exepath, one.line, (one.key.empty() ? "" : one.key + ": ") + one.text,
                  one.remedy);
    }
    if (!read.findings.empty()) continue;
    check_command(program, read.settings, out);
    check_needs(subject, program, read.settings, out);
  }
}

}  // namespace control
