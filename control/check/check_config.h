#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "control/check/finding.h"
#include "control/config/ini_document.h"
#include "control/config/program_list.h"
#include "control/proc/process_table.h"
#include "control/site/snapshot.h"
#include "runner/file/program_file.h"

namespace control {

/// What a configuration is checked against.
struct check_subject {
  const site& place;
  const snapshot& now;
  const process_table& processes;
  const ini_document& document;
  /// As a load reads them: a name that is listed twice is here twice.
  const std::vector<listed_program>& programs;
  /// Whether it is the file that the daemon reads, and not one that may replace it.
  bool is_present_file = true;
};

/// Everything that would surprise in a configuration, in the order of its lines.
std::vector<finding> check_config(const check_subject& subject);

/// Lines that do not mean what they look like: headers, keys, blanks, tabs, comments.
void check_lines(const ini_document& document, findings& out);
/// The list of programs: its count, gaps, repetitions, entries that are refused.
void check_list(const check_subject& subject, findings& out);
/// Each program: its name as a pattern, its path as a command, its file, its state.
void check_programs(const check_subject& subject, findings& out);
/// What is wrong in the program files that the entries name, by the rules of keelmond-run.
void check_program_files(const check_subject& subject, findings& out);
/// The directory around it: who may write, what is missing, what still runs.
void check_site(const check_subject& subject, findings& out);

/// The line of a property, counted from 1; that of the section's header, or 0, when it has none.
std::size_t line_of(const ini_document& document, const std::string& section,
                    const std::string& key);

/// Whether `name`, as the pattern that `pgrep` takes it for, matches a process of that name.
/// An invalid pattern matches nothing.
bool matches_as_pattern(const std::string& name, const std::string& process_name);
/// Why "stop" would signal what a program file runs, and not keelmond-run alone. Empty when the
/// name of its entry does not fit its command.
std::string why_command_is_hit(const std::string& name, const runner::program_file& file);
/// The first line of a script, as far as the kernel reads it; empty when nobody may read the file.
std::string first_line_of(const std::string& path);
/// Whether the shell takes the text as one word and leaves it as it is.
bool is_plain_word(std::string_view text);

}  // namespace control
