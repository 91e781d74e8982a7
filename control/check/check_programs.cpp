#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "control/check/check_config.h"
#include "control/site/daemon_search.h"
#include "control/site/running_programs.h"
#include "runner/file/program_file.h"

namespace control {
namespace {

constexpr std::size_t kLongestProcessName = 15;

/// The line that lists the program.
std::size_t name_line(const check_subject& subject, const listed_program& program) {
  return line_of(subject.document, server_entry::kSection, server_entry::key_of(program.number));
}

bool is_safe_name(const std::string& name) {
  return is_plain_word(name) && name.find('/') == std::string::npos && name.front() != '-';
}

void check_name(const check_subject& subject, const listed_program& program, findings& out) {
  const std::size_t line = name_line(subject, program);
  if (program.name.size() < 2) {
    out.fail(line, "the name " + program.name + " has one character: no section can describe it",
             "give it a longer name");
  }
  if (!is_safe_name(program.name)) {
    out.fail(line,
             "the name \"" + program.name +
                 "\" is not one plain word: it goes to the shell and to pgrep when the program "
                 "is to stop, and to a file name",
             "use letters, digits and _ only");
    return;
  }
  const std::string seen = process_name_of(program.exepath);
  if (program.name.size() > kLongestProcessName) {
    out.fail(line,
             "the name " + program.name +
                 " is longer than the 15 characters that pgrep sees: \"stop\" cannot reach the "
                 "program",
             "give the entry and the file a name of at most 15 characters");
  } else if (is_plain_word(program.exepath) && !matches_as_pattern(program.name, seen)) {
    out.fail(line,
             "pgrep will see the program as " + seen + ", which " + program.name +
                 " does not match: \"stop\" cannot reach it",
             "name the entry like the file");
  }
}

std::string fits_stranger(const std::string& name, const std::string& stranger, pid_t pid) {
  return "the name " + name + " fits another process, " + stranger + " (PID " +
         std::to_string(pid) + ")";
}

/// To pgrep a name is a pattern: every process that it matches is stopped with the program.
/// @param strangers a process of each name that is not the supervisor's.
void check_pattern(const check_subject& subject, const listed_program& program,
                   const std::map<std::string, pid_t>& strangers, findings& out) {
  if (!is_safe_name(program.name)) return;
  const std::size_t line = name_line(subject, program);
  const std::string consequence = ": \"stop\" would hit it as well";
  if (matches_as_pattern(program.name, kDaemonName)) {
    out.fail(line, "the name " + program.name + " fits keelmond itself" + consequence,
             "give the program a name of its own");
    return;
  }
  for (const listed_program& other : subject.programs) {
    if (other.name == program.name || other.refused != refusal::none) continue;
    if (!matches_as_pattern(program.name, process_name_of(other.exepath))) continue;
    out.fail(line, "the name " + program.name + " fits the program " + other.name + consequence,
             "rename one of the two so that neither is part of the other");
  }
  for (const auto& [name, pid] : strangers) {
    if (!matches_as_pattern(program.name, name)) continue;
    out.warn(line, fits_stranger(program.name, name, pid) + consequence,
             "give the program a name that no other process has");
  }
}

/// The name of the process that a script becomes when `env` looks for its interpreter; empty when
/// it does not.
std::string name_after_env(const std::string& path) {
  const std::string line = first_line_of(path);
  // What runs a program file keeps its name.
  if (!line.starts_with("#!") || runner::is_program_file(line)) return "";
  std::istringstream words(line.substr(2));
  std::string word;
  if (!(words >> word) || process_name_of(word) != "env") return "";
  while (words >> word) {
    if (word == "-u" || word == "-C") {
      words >> word;
    } else if (word.front() != '-' && word.find('=') == std::string::npos) {
      return process_name_of(word);
    }
  }
  return "";
}

void check_interpreter(const listed_program& program, std::size_t line, findings& out) {
  const std::string seen = name_after_env(program.exepath);
  if (seen.empty() || matches_as_pattern(program.name, seen)) return;
  out.warn(line,
           "env makes the process " + seen + " of " + program.exepath + ", which " + program.name +
               " does not match: \"stop\" cannot reach it",
           "write the full path of " + seen + " behind #! in its first line, without env");
}

/// @param line that of the path, or else that of the entry.
void check_file(const check_subject& subject, const listed_program& program, std::size_t line,
                findings& out) {
  const std::string who = "entry svr" + std::to_string(program.number) + " is skipped: ";
  switch (find_obstacle(program)) {
    case obstacle::missing:
      out.fail(line, who + program.exepath + " is missing or cannot be read",
               "exepath is the full path of one file, without arguments");
      return;
    case obstacle::not_executable:
      out.fail(line, who + program.exepath + " is not executable", "chmod +x " + program.exepath);
      return;
    case obstacle::none:
      break;
  }
  struct stat status {};
  if (::stat(program.exepath.c_str(), &status) != 0) return;
  if (S_ISDIR(status.st_mode)) {
    out.fail(line, program.exepath + " is a directory and cannot be run", "name a file");
  } else if (has_other_user(subject.now) &&
             !daemon_may(subject.now, program.exepath, status, S_IROTH | S_IXOTH)) {
    out.fail(line, who + "keelmond's user may not read and run " + program.exepath,
             "chmod a+rx " + program.exepath + ", or give it to that user");
  } else if ((status.st_mode & S_IWOTH) != 0) {
    out.warn(line, "every user may write " + program.exepath + ", and keelmond runs it",
             "chmod o-w " + program.exepath);
  }
  if (S_ISREG(status.st_mode)) check_interpreter(program, line, out);
}

void check_path(const check_subject& subject, const listed_program& program, findings& out) {
  const std::size_t line = program.exepath_given
                               ? line_of(subject.document, program.name, "exepath")
                               : name_line(subject, program);
  if (!is_plain_word(program.exepath)) {
    out.fail(line, "the shell would split or expand the path " + program.exepath,
             program.exepath_given
                 ? "use a path of letters, digits and / . _ - only"
                 : "move keelmond to a directory with a plain name, or give exepath");
  } else if (program.exepath.front() != '/') {
    out.fail(line,
             "the path " + program.exepath +
                 " is relative: it is looked for here and run from its own directory",
             "write the full path");
  }
  check_file(subject, program, line, out);
}

void check_state(const check_subject& subject, const listed_program& program, findings& out) {
  if (program.wants_run() || program.wants_stop()) return;
  const std::size_t line = line_of(subject.document, program.name, "state");
  if (program.state.empty()) {
    out.warn(line == 0 ? name_line(subject, program) : line,
             program.name + " has no state: it is neither started nor stopped",
             "add state = run or state = stop to [" + program.name + "]");
  } else {
    out.fail(line, "the state \"" + program.state + "\" is neither run nor stop: nothing is done",
             "write run or stop, in small letters");
  }
}

std::set<pid_t> own_processes(const snapshot& now) {
  std::set<pid_t> own;
  const auto add = [&](const running_program& one) {
    own.insert(one.child.pid);
    for (const process& below : one.tree)
      own.insert(below.pid);
  };
  std::for_each(now.running.begin(), now.running.end(), add);
  std::for_each(now.left_over.begin(), now.left_over.end(), add);
  if (now.search.daemon) own.insert(now.search.daemon->pid);
  return own;
}

std::map<std::string, pid_t> strangers_of(const check_subject& subject) {
  const std::set<pid_t> own = own_processes(subject.now);
  std::map<std::string, pid_t> strangers;
  for (const process& one : subject.processes.all()) {
    if (!own.contains(one.pid)) strangers.emplace(one.name, one.pid);
  }
  return strangers;
}

}  // namespace

void check_programs(const check_subject& subject, findings& out) {
  const std::map<std::string, pid_t> strangers = strangers_of(subject);
  std::set<std::string> seen;
  for (const listed_program& program : subject.programs) {
    if (program.refused != refusal::none || !seen.insert(program.name).second) continue;
    check_name(subject, program, out);
    check_pattern(subject, program, strangers, out);
    check_path(subject, program, out);
    check_state(subject, program, out);
  }
}

}  // namespace control
