#include "control/config/config_editor.h"

#include <algorithm>
#include <cstddef>

#include "control/config/config_bytes.h"
#include "control/config/program_list.h"
#include "control/text/failure.h"

namespace control::config_editor {
namespace {

using ini_line::meaning;
using server_entry::kCountKey;
using server_entry::key_of;
using server_entry::kSection;

/// A directory that is as good as any: paths without `exepath` need one to be compared.
constexpr char kSomewhere[] = "/";

/// What a load makes of a text: name, path and state of each program, without the numbers.
using outcome = std::vector<std::vector<std::string>>;

outcome outcome_of(std::string_view text) {
  outcome result;
  for (const listed_program& program : read_programs(parse_config(text), kSomewhere))
    result.push_back({program.name, program.exepath, program.state});
  return result;
}

std::string checked(const ini_document& document, const outcome& wanted) {
  std::string text = document.text();
  if (outcome_of(text) == wanted) return text;
  throw failure(
      "config/server.ini is written in a way that cannot be changed here without changing more "
      "than was asked. Nothing was saved. Run `keelmondctl check`, or `keelmondctl edit` and "
      "change "
      "it by hand");
}

/// "key = value" with the blanks that the section's other assignments have.
std::string assignment(const ini_document& document, std::string_view section, std::string_view key,
                       std::string_view value) {
  const std::ptrdiff_t near = document.last_of(section);
  const auto& lines = document.lines();
  bool blanks = true;
  if (near >= 0 && lines[static_cast<std::size_t>(near)].meaning == meaning::assignment) {
    const document_line& line = lines[static_cast<std::size_t>(near)];
    const std::size_t equals = line.text.find('=');
    blanks = line.text[equals - 1] == ' ';
  }
  std::string text(key);
  text += blanks ? " = " : "=";
  text += value;
  return text;
}

/// Sets a property of a section that has a header or an assignment already.
void set_property(ini_document& document, std::string_view section, std::string_view key,
                  std::string_view value) {
  const std::ptrdiff_t line = document.find(section, key);
  if (line >= 0) {
    document.replace_value(static_cast<std::size_t>(line), value);
  } else {
    document.insert_after(document.last_of(section), assignment(document, section, key, value));
  }
}

void append_section(ini_document& document, const std::string& name) {
  if (!document.lines().empty()) document.append("");
  document.append("[" + name + "]");
}

void set_one_state(ini_document& document, const std::string& name, std::string_view state) {
  if (document.last_of(name) < 0) append_section(document, name);
  set_property(document, name, "state", state);
}

/// Whether a line says nothing to the daemon: a comment, or blank.
bool is_silent(const document_line& line) {
  return line.meaning == meaning::none &&
         !ini_line::is_kept_line(
             ini_line::trim_func(std::string_view(line.text).substr(0, line.text.find('\n'))));
}

bool is_blank(const document_line& line) {
  return line.text.find_first_not_of(" \t\r\n") == std::string::npos;
}

/// Where a section that begins at line `first` ends: before the next header and the comments right
/// above that.
std::size_t end_of_section(const ini_document& document, std::size_t first) {
  const auto& lines = document.lines();
  std::size_t end = first + 1;
  while (end < lines.size() && !lines[end].opens)
    ++end;
  if (end == lines.size()) return end;
  std::size_t above = end;
  while (above > first + 1 && is_silent(lines[above - 1]) && !is_blank(lines[above - 1]))
    --above;
  // Comments that touch the section's own lines belong to it.
  return above > first + 1 && is_blank(lines[above - 1]) ? above : end;
}

void erase_section(ini_document& document, const std::string& name) {
  for (std::ptrdiff_t at; (at = document.find_header(name)) >= 0;) {
    const auto first = static_cast<std::size_t>(at);
    std::size_t end = end_of_section(document, first);
    // At the end of the file the blank line in front goes instead of one behind.
    std::size_t begin = first;
    if (end == document.lines().size() && begin > 0 && is_blank(document.lines()[begin - 1]))
      --begin;
    document.erase(begin, end - begin);
  }
}

/// Removes every assignment of a key, for the ones before the last would count otherwise.
void erase_key(ini_document& document, std::string_view section, const std::string& key) {
  for (std::ptrdiff_t at; (at = document.find(section, key)) >= 0;)
    document.erase(static_cast<std::size_t>(at), 1);
}

/// Gives the entries the numbers from 1 on, in their order.
void close_up(ini_document& document, const std::vector<int>& numbers) {
  int next = 0;
  for (const int number : numbers) {
    ++next;
    if (number == next) continue;
    const std::string key = key_of(number);
    const auto line = static_cast<std::size_t>(document.find(kSection, key));
    document.replace_key(line, key_of(next));
    erase_key(document, kSection, key);
  }
  set_property(document, kSection, kCountKey, std::to_string(next));
}

}  // namespace

std::string set_state(std::string_view text, const std::vector<std::string>& names,
                      std::string_view state) {
  ini_document document(text);
  outcome wanted = outcome_of(text);
  for (const std::string& name : names) {
    bool listed = false;
    for (auto& program : wanted) {
      if (program[0] != name) continue;
      program[2] = state;
      listed = true;
    }
    if (!listed) throw failure("there is no program " + name + " in config/server.ini");
    set_one_state(document, name, state);
  }
  return checked(document, wanted);
}

std::string add_program(std::string_view text, const new_program& program) {
  ini_document document(text);
  outcome wanted = outcome_of(text);
  const auto same = [&](const auto& one) { return one[0] == program.name; };
  if (std::any_of(wanted.begin(), wanted.end(), same)) {
    throw failure("there is a program " + program.name + " in config/server.ini already");
  }
  wanted.push_back({program.name,
                    program.exepath.empty() ? kSomewhere + program.name : program.exepath,
                    program.state});

  if (document.last_of(kSection) < 0) append_section(document, kSection);
  const auto numbers = read_programs(parse_config(text), kSomewhere);
  const int number = numbers.empty() ? 1 : numbers.back().number + 1;
  const std::string key = key_of(number);
  erase_key(document, kSection, key);
  set_property(document, kSection, key, program.name);
  set_property(document, kSection, kCountKey, std::to_string(number));

  // A section that has no entry may be left from before: its comments stay, and what it says does
  // not count again.
  if (document.last_of(program.name) < 0) append_section(document, program.name);
  if (program.exepath.empty()) erase_key(document, program.name, "exepath");
  if (!program.exepath.empty()) set_property(document, program.name, "exepath", program.exepath);
  set_property(document, program.name, "state", program.state);
  return checked(document, wanted);
}

std::string remove_program(std::string_view text, const std::string& name) {
  ini_document document(text);
  outcome wanted = outcome_of(text);
  const auto same = [&](const auto& one) { return one[0] == name; };
  if (std::erase_if(wanted, same) == 0) {
    throw failure("there is no program " + name + " in config/server.ini");
  }
  std::vector<int> kept;
  for (const listed_program& program : read_programs(parse_config(text), kSomewhere)) {
    if (program.name == name) {
      erase_key(document, kSection, key_of(program.number));
    } else {
      kept.push_back(program.number);
    }
  }
  close_up(document, kept);
  erase_section(document, name);
  return checked(document, wanted);
}

}  // namespace control::config_editor
