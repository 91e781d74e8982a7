#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "control/check/check_config.h"

namespace control {
namespace {

using ini_line::meaning;

std::string_view visible(const document_line& line) {
  return ini_line::trim_func(std::string_view(line.text).substr(0, line.text.find('\n')));
}

bool is_blank(std::string_view text) {
  return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

void check_header(const document_line& line, std::size_t number, findings& out) {
  if (line.opens) {
    if (line.section.front() == ' ' || line.section.back() == ' ') {
      out.warn(number, "the blanks inside the brackets belong to the name \"" + line.section + "\"",
               "remove them");
    }
    return;
  }
  out.fail(number,
           "a header whose name has fewer than two characters starts no section: the lines below "
           "belong to " +
               (line.section.empty() ? "none" : "[" + line.section + "]"),
           "give the section a longer name");
}

void check_assignment(const document_line& line, std::size_t number, findings& out) {
  if (line.key.front() == '\t' || line.key.back() == '\t' || line.value.front() == '\t') {
    out.fail(number, "a tab is part of the key or the value: only blanks around them are removed",
             "use blanks");
  } else if (line.key.back() == ' ') {
    out.warn(number,
             "the key is \"" + line.key + "\" with its blank: one of a single letter keeps it",
             "write it without the blank");
  }
  for (const char* const mark : {" ;", " #", " //"}) {
    const std::size_t at = line.value.find(mark);
    if (at == std::string::npos) continue;
    const std::string comment = line.value.substr(at + 1);
    out.warn(number,
             "\"" + comment + "\" is part of the value: there are no comments behind values",
             "put the comment on a line of its own");
    break;
  }
  if (line.value.find('\t') != std::string::npos && line.value.front() != '\t') {
    out.warn(number, "there is a tab in the value", "remove it");
  }
}

void check_meaningless(const document_line& line, std::size_t number, findings& out) {
  const std::string_view text = visible(line);
  if (is_blank(text) || (!text.empty() && ini_line::is_comment_line(text.data()))) return;
  if (text.front() == '[' && text.find(']') != std::string_view::npos) {
    out.fail(number, "this header starts no section, because something stands behind its bracket",
             "remove what is behind it, blanks and tabs too");
  } else if (text.back() == '=') {
    out.warn(number, "a key without a value counts as absent",
             "give it a value or remove the line");
  } else if (text.front() == '\t') {
    out.warn(number, "this line begins with a tab and is no comment; it means nothing",
             "remove it");
  } else {
    out.warn(number, "this line means nothing", "make it a comment with # or remove it");
  }
}

void check_repetitions(const ini_document& document, findings& out) {
  std::map<std::pair<std::string, std::string>, std::size_t> seen;
  std::map<std::string, std::size_t> headers;
  const auto& lines = document.lines();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].opens && !headers.emplace(lines[i].section, i).second) {
      out.warn(i + 1,
               "[" + lines[i].section + "] is there already, in line " +
                   std::to_string(headers[lines[i].section] + 1) + ": this continues it",
               "put its lines together");
    }
    if (lines[i].meaning != meaning::assignment) continue;
    const auto [at, is_new] = seen.emplace(std::pair(lines[i].section, lines[i].key), i);
    if (is_new) continue;
    out.warn(at->second + 1,
             lines[i].key + " is set again in line " + std::to_string(i + 1) +
                 ", and the last one counts",
             "keep one of them");
    at->second = i;
  }
}

}  // namespace

void check_lines(const ini_document& document, findings& out) {
  const auto& lines = document.lines();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    switch (lines[i].meaning) {
      case meaning::section:
        check_header(lines[i], i + 1, out);
        break;
      case meaning::assignment:
        check_assignment(lines[i], i + 1, out);
        break;
      case meaning::none:
        check_meaningless(lines[i], i + 1, out);
        break;
    }
  }
  check_repetitions(document, out);
}

}  // namespace control
