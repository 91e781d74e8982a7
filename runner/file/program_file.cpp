#include "runner/file/program_file.h"

#include <algorithm>

#include "runner/file/key_table.h"

namespace runner {

const program_file::setting* program_file::find(std::string_view section,
                                                std::string_view key) const {
  const auto found = std::find_if(stated.begin(), stated.end(), [&](const setting& one) {
    return one.section == section && one.key == key;
  });
  return found == stated.end() ? nullptr : &*found;
}

std::size_t program_file::line_of(std::string_view section, std::string_view key) const {
  const setting* const found = find(section, key);
  return found == nullptr ? 0 : found->line;
}

std::string explain(const program_file& file) {
  std::string text;
  std::string_view section;
  const auto tell_variables = [&] {
    if (section != "environment") return;
    for (const program_file::setting& one : file.stated) {
      if (one.section == section && find_rule(section, one.key) == nullptr)
        text += one.key + " = " + one.value + "\n";
    }
  };
  for (const key_rule& rule : key_table()) {
    if (rule.section != section) {
      tell_variables();
      text += (text.empty() ? "[" : "\n[") + std::string(rule.section) + "]\n";
      section = rule.section;
    }
    const program_file::setting* const given = file.find(rule.section, rule.key);
    const bool has_value = given != nullptr || !rule.initial.starts_with('(');
    text += (given != nullptr ? "" : "# ") + std::string(rule.key) + (has_value ? " = " : ": ") +
            (given != nullptr ? given->value : std::string(rule.initial)) + "\n";
  }
  return text;
}

bool is_program_file(std::string_view text) {
  constexpr std::string_view kInterpreter = "keelmond-run";
  const std::string_view first = text.substr(0, text.find('\n'));
  if (!first.starts_with("#!")) return false;
  // The directory may have the name as well, with a version behind it.
  const std::size_t at = first.rfind(kInterpreter);
  if (at == std::string_view::npos) return false;
  const char before = first[at - 1];
  const std::string_view rest = first.substr(at + kInterpreter.size());
  return (before == '/' || before == ' ' || before == '!' || before == '\t') &&
         (rest.empty() || rest.front() == ' ' || rest.front() == '\r' || rest.front() == '\t');
}

std::string program_name_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace runner
