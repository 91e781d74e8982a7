#include <charconv>
#include <map>
#include <set>
#include <string>

#include "control/check/check_config.h"
#include "control/config/config_bytes.h"

namespace control {
namespace {

using ini_line::meaning;
using server_entry::kCountKey;
using server_entry::key_of;
using server_entry::kSection;

std::string value_of(const ini_document& document, const std::string& key) {
  const std::ptrdiff_t line = document.find(kSection, key);
  return line < 0 ? std::string() : document.lines()[static_cast<std::size_t>(line)].value;
}

/// The numbers of all entries, those that the count leaves out too.
std::set<int> written_numbers(const ini_document& document) {
  std::set<int> numbers;
  for (const document_line& line : document.lines()) {
    if (line.meaning != meaning::assignment || line.section != kSection) continue;
    const int number = server_entry::number_of(line.key);
    if (number > 0) numbers.insert(number);
  }
  return numbers;
}

void check_keys(const check_subject& subject, findings& out) {
  const ini_document& document = subject.document;
  std::set<std::string> listed;
  for (const listed_program& program : subject.programs)
    listed.insert(program.name);
  for (std::size_t i = 0; i < document.lines().size(); ++i) {
    const document_line& line = document.lines()[i];
    if (line.meaning != meaning::assignment) continue;
    if (line.section.empty()) {
      out.warn(i + 1, "the key " + line.key + " stands in no section and means nothing",
               "put it below the header of its section");
    } else if (line.section == kSection) {
      if (line.key == kCountKey || server_entry::number_of(line.key) > 0) continue;
      out.warn(i + 1, "the key " + line.key + " means nothing in [keelmond]",
               "the keys there are linux, svr1, svr2 and so on");
    } else if (listed.contains(line.section) && line.key != server_entry::kExepathKey &&
               line.key != server_entry::kStateKey) {
      out.warn(i + 1, "the key " + line.key + " means nothing in [" + line.section + "]",
               "the keys there are exepath and state, in small letters");
    }
  }
}

/// @return how many entries are read; -1 when no count says so.
int check_count(const ini_document& document, findings& out) {
  const std::string text = value_of(document, kCountKey);
  if (document.find_header(kSection) < 0 && text.empty()) {
    out.fail(0, "there is no section [keelmond]: nothing is run", "begin the file with [keelmond]");
    return -1;
  }
  const std::size_t line = line_of(document, kSection, kCountKey);
  if (text.empty()) {
    out.fail(line, "linux, the number of entries, is missing: nothing is run", "add linux = N");
    return -1;
  }
  int count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc{} || end != text.data() + text.size() || count < 0) {
    out.fail(line, "linux is \"" + text + "\", which is no number of entries",
             "write the number of entries");
  }
  return 0;
}

void check_numbers(const check_subject& subject, int read, findings& out) {
  const ini_document& document = subject.document;
  const std::set<int> numbers = written_numbers(document);
  int expected = 1;
  for (const int number : numbers) {
    const std::size_t line = line_of(document, kSection, key_of(number));
    if (number > read) {
      out.fail(line,
               value_of(document, key_of(number)) + " is left out: linux says that there are " +
                   std::to_string(read) + " entries",
               "set linux to " + std::to_string(*numbers.rbegin()));
    } else if (number > expected) {
      out.warn(line, "there is no " + key_of(expected) + " before it; it is skipped",
               "number the entries without gaps");
    }
    expected = number + 1;
  }
  if (read > 0 && (numbers.empty() || *numbers.rbegin() < read)) {
    out.warn(line_of(document, kSection, kCountKey),
             "linux says that there are " + std::to_string(read) +
                 " entries, and the last one is " +
                 (numbers.empty() ? "missing" : key_of(*numbers.rbegin())),
             "set linux to the number of entries");
  }
}

void check_refused(const check_subject& subject, const listed_program& program, findings& out) {
  const auto tell = [&](const char* key, std::size_t line, std::size_t limit) {
    out.fail(line,
             "entry " + key_of(program.number) + " is skipped: its " + key + " is longer than " +
                 std::to_string(limit) + " bytes or holds a NUL byte",
             "make it shorter");
  };
  const auto line = [&](const char* key) { return line_of(subject.document, program.name, key); };
  switch (program.refused) {
    case refusal::name:
      return tell("name", line_of(subject.document, kSection, key_of(program.number)),
                  server_entry::kLongestName);
    case refusal::exepath:
      return tell("exepath", line("exepath"), server_entry::kLongestExepath);
    case refusal::state:
      return tell("state", line("state"), server_entry::kLongestState);
    case refusal::none:
      return;
  }
}

}  // namespace

void check_list(const check_subject& subject, findings& out) {
  check_keys(subject, out);
  if (check_count(subject.document, out) < 0) return;
  const Tini_parser parsed = parse_config(subject.document.text());
  check_numbers(subject, server_entry::count_of(parsed), out);

  std::map<std::string, int> seen;
  for (const listed_program& program : subject.programs) {
    check_refused(subject, program, out);
    const auto [at, is_new] = seen.emplace(program.name, program.number);
    if (is_new) continue;
    out.warn(line_of(subject.document, kSection, key_of(program.number)),
             program.name + " is listed as " + key_of(at->second) + " already: it is one program",
             "remove one of the two");
  }
}

}  // namespace control
