// Changes any bytes as a configuration, and checks them.
//
// An input is a first line with the name of a program, and behind it the content of the file. What
// an edit makes of it, as the daemon's parser reads it, differs from before in what was asked and
// in nothing else; otherwise the edit is refused. What the lines mean to the editor is what they
// mean to the parser.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "control/check/check_config.h"
#include "control/config/config_bytes.h"
#include "control/config/config_editor.h"
#include "control/config/ini_document.h"
#include "control/config/program_list.h"
#include "control/text/failure.h"

namespace {

using control::listed_program;

constexpr char kDirectory[] = "/srv";

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}

using programs = std::vector<std::vector<std::string>>;

programs programs_of(const std::string& text) {
  programs found;
  for (const listed_program& one : control::read_programs(control::parse_config(text), kDirectory))
    found.push_back({one.name, one.exepath, one.state});
  return found;
}

void require_same_meaning(const std::string& text) {
  const Tini_parser parsed = control::parse_config(text);
  const control::ini_document document(text);
  require(document.text() == text, "every byte is kept");
  std::map<std::string, std::map<std::string, std::string>> sections;
  for (const control::document_line& line : document.lines()) {
    if (line.meaning == ini_line::meaning::assignment)
      sections[line.section][line.key] = line.value;
  }
  for (const auto& [section, values] : sections) {
    require(parsed.section_keys(section).size() == values.size(), "the same keys");
    for (const auto& [key, value] : values)
      require(parsed.read_string(section, key, "") == value, "the same value");
  }
}

/// Does one edit; a refusal is fine.
template <typename Edit>
void require_outcome(const programs& wanted, Edit edit) {
  try {
    require(programs_of(edit()) == wanted, "what was asked, and nothing else");
  } catch (const control::failure&) {
  }
}

void require_edits(const std::string& text, const std::string& name) {
  const programs before = programs_of(text);
  programs stopped = before;
  for (auto& program : stopped) {
    if (program[0] == name) program[2] = "stop";
  }
  require_outcome(stopped, [&] { return control::config_editor::set_state(text, {name}, "stop"); });
  programs without = before;
  std::erase_if(without, [&](const auto& one) { return one[0] == name; });
  require_outcome(without, [&] { return control::config_editor::remove_program(text, name); });
  programs more = before;
  more.push_back({"added", "/bin/added", "run"});
  require_outcome(more, [&] {
    return control::config_editor::add_program(text, {"added", "/bin/added", "run"});
  });
}

void check(const std::string& text) {
  static const control::site place{kDirectory};
  static const control::snapshot now;
  static const control::process_table nobody{std::vector<control::process>{}};
  const control::ini_document document(text);
  const auto listed = control::read_programs(control::parse_config(text), kDirectory);
  const auto found = control::check_config({place, now, nobody, document, listed, false});
  for (const control::finding& one : found) {
    require(one.line <= document.lines().size(), "a line that is there");
    require(!one.text.empty() && !one.remedy.empty(), "a text and a remedy");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(input.find('\n'), input.size());
  const std::string name = input.substr(0, end);
  const std::string text = input.substr(std::min(end + 1, input.size()));
  require_same_meaning(text);
  require_edits(text, name);
  check(text);
  return 0;
}
