// Reads any bytes as a program file, and as what may stand in one.
//
// What is refused is told with a line that the file has, in one line of text. What is not refused
// can be explained, and the explanation is a program file that says the same.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "runner/file/environment_file.h"
#include "runner/file/program_file.h"
#include "runner/file/state_file.h"
#include "runner/file/words.h"

namespace {

constexpr char kPath[] = "/srv/kmd_x";

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}

void check_findings(const runner::program_file_result& result, std::string_view text) {
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  for (const runner::file_finding& one : result.findings) {
    require(one.line <= lines, "a finding has a line of the file");
    require(!one.text.empty(), "a finding says what is wrong");
    const std::string told = runner::in_one_line(kPath, one);
    require(told.find('\n') == std::string::npos, "a finding is one line");
  }
}

void check_settings(const runner::program_file& file) {
  require(!file.program.command.empty(), "there is a command");
  require(!file.program.command.front().empty(), "the command has a name");
  require(file.program.directory.front() == '/', "the directory is absolute");
  require(file.restart.delay <= file.restart.longest, "the pauses are in order");
  for (const auto& [name, value] : file.environment.variables)
    require(runner::is_variable_name(name), "a variable has a name");
  const std::string text = runner::explain(file);
  const runner::program_file_result again = runner::read_program_text(text, kPath);
  require(again.findings.empty(), "an explanation is a program file");
  require(runner::explain(again.settings) == text, "an explanation says the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  // A file may name another one to be read, and that is not what is tried here.
  if (text.find("file") == std::string_view::npos ||
      text.find("environment") == std::string_view::npos) {
    const runner::program_file_result result = runner::read_program_text(text, kPath);
    check_findings(result, text);
    if (result.findings.empty()) check_settings(result.settings);
  }
  std::vector<std::string> words;
  if (runner::split_words(text, words).empty()) require(!words.empty(), "a command has words");
  runner::environment_list variables;
  runner::read_environment(text, variables);
  if (const auto state = runner::parse_state(text)) {
    const std::string printed = runner::print_state(*state);
    const auto again = runner::parse_state(printed);
    require(again && runner::print_state(*again) == printed, "a state says what it was told");
  }
  return 0;
}
