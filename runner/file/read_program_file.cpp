#include <unistd.h>

#include <algorithm>
#include <climits>

#include "common/inifile/ini_line.h"
#include "runner/file/key_table.h"
#include "runner/file/program_file.h"
#include "runner/file/text_file.h"
#include "runner/file/words.h"

namespace runner {
namespace {

bool is_blank(std::string_view line) {
  return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

std::string quoted(std::string_view text) {
  // A line that is wrong may be of any length.
  constexpr std::size_t kShown = 60;
  const bool is_long = text.size() > kShown;
  return "\"" + std::string(text.substr(0, kShown)) + (is_long ? "..." : "") + "\"";
}

std::string directory_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == 0) return "";
  if (path.front() == '/') return path.substr(0, slash);
  char here[PATH_MAX];
  const std::string base = ::getcwd(here, sizeof here) == nullptr ? "" : here;
  return slash == std::string::npos ? base : base + "/" + path.substr(0, slash);
}

/// Sorts the lines of a file into settings, by the rules of the INI library.
class line_reader final {
 public:
  explicit line_reader(program_file_result& out) : out_(out) {}

  void read(std::string_view text) {
    while (!text.empty()) {
      const std::size_t end = std::min(text.find('\n'), text.size());
      ++line_;
      take(text.substr(0, end));
      text.remove_prefix(std::min(end + 1, text.size()));
    }
  }

 private:
  void fail(std::string key, std::string text, std::string remedy) {
    out_.findings.push_back({line_, std::move(key), std::move(text), std::move(remedy)});
  }

  void take(std::string_view untrimmed) {
    const std::string_view line = ini_line::trim_func(untrimmed);
    if (is_blank(line) || ini_line::is_comment_line(line.data())) return;
    switch (ini_line::classify(line)) {
      case ini_line::meaning::section:
        take_header(line);
        break;
      case ini_line::meaning::assignment:
        take_assignment(line);
        break;
      case ini_line::meaning::none:
        take_nothing(line);
        break;
    }
  }

  void take_nothing(std::string_view line) {
    if (line.ends_with('=')) {
      fail(std::string(ini_line::trim_func(ini_line::extract_key(line))), "it has no value",
           "leave the line out");
    } else {
      fail({}, quoted(line) + " is neither a header nor a key with a value",
           "write [section] or key = value, and # in front of a remark");
    }
  }

  void take_header(std::string_view line) {
    section_ = ini_line::extract_section_name(line);
    is_known_ = ini_line::opens_section(line) && is_section(section_);
    if (!is_known_)
      fail({}, "there is no section " + quoted(section_), "the sections are " + list_sections());
  }

  void take_assignment(std::string_view line) {
    const std::string key(ini_line::trim_func(ini_line::extract_key(line)));
    const std::string value(ini_line::trim_func(ini_line::extract_value(line)));
    if (section_.empty()) {
      fail(key, "it stands in no section", "put it below a header such as [program]");
      return;
    }
    // The header has been reported, and that is enough.
    if (!is_known_) return;
    if (!check_key(key) || !check_value(key, value)) return;
    out_.settings.stated.push_back({section_, key, value, line_});
  }

  bool check_key(const std::string& key) {
    const bool is_variable = section_ == "environment" && is_variable_name(key);
    if (!is_variable && find_rule(section_, key) == nullptr) {
      if (key.find_first_of(" \t") != std::string::npos) {
        fail(key, "a blank or a tab is part of the key",
             "indent with blanks only, and put none before the = of a key of one letter");
      } else if (section_ == "environment") {
        fail(key, "no variable can be called that", "write NAME = value");
      } else {
        fail(key, "[" + section_ + "] has no such key", "its keys are " + list_keys(section_));
      }
      return false;
    }
    const std::size_t earlier = out_.settings.line_of(section_, key);
    if (earlier == 0) return true;
    fail(key, "it stands in line " + std::to_string(earlier) + " already", "write it once");
    return false;
  }

  bool check_value(const std::string& key, const std::string& value) {
    if (is_blank(value)) {
      fail(key, "it has no value", "leave the line out");
    } else if (value.front() == '\t' || value.back() == '\t') {
      fail(key, "a tab is part of the value", "put blanks around it, not tabs");
    } else if (value.find('\0') != std::string::npos) {
      fail(key, "a zero byte is part of the value", "write text");
    } else {
      return true;
    }
    return false;
  }

  program_file_result& out_;
  std::size_t line_ = 0;
  std::string section_;
  bool is_known_ = false;
};

/// Gives the settings their meaning.
class meaning_reader final {
 public:
  meaning_reader(program_file_result& out, const std::string& path)
      : out_(out), into_{out.settings, known_, directory_of(path)} {
    out_.settings.program.directory = into_.directory.empty() ? "/" : into_.directory;
    out_.settings.log.name = program_name_of(path);
  }

  void read() {
    for (const program_file::setting& given : out_.settings.stated)
      take(given);
    read_variables();
    finish_identity();
    check_whole();
  }

 private:
  void fail(std::string_view section, std::string_view key, std::string text, std::string remedy) {
    out_.findings.push_back({out_.settings.line_of(section, key), std::string(key), std::move(text),
                             std::move(remedy)});
  }

  void take(const program_file::setting& given) {
    const key_rule* const rule = find_rule(given.section, given.key);
    if (rule == nullptr) return;  // a variable
    into_.error.clear();
    if (rule->take(into_, given)) return;
    if (into_.error.empty()) into_.error = quoted(given.value) + " cannot be understood";
    fail(given.section, given.key, into_.error, "write " + std::string(rule->wanted));
    if (given.section == "log") log_is_wrong_ = true;
  }

  void read_variables() {
    if (const program_file::setting* const file = out_.settings.find("environment", "file"))
      read_environment_file(into_.absolute(file->value));
    for (const program_file::setting& given : out_.settings.stated) {
      if (given.section == "environment" && find_rule(given.section, given.key) == nullptr)
        out_.settings.environment.variables.emplace_back(given.key, given.value);
    }
  }

  void read_environment_file(const std::string& path) {
    std::string text;
    if (const std::string error = read_text_file(path, path, kLargestProgramFile, text);
        !error.empty()) {
      fail("environment", "file", error, "name a file with lines NAME=value");
      return;
    }
    const environment_fault fault = read_environment(text, out_.settings.environment.variables);
    if (fault.line == 0) return;
    fail("environment", "file", path + ":" + std::to_string(fault.line) + ": " + fault.text,
         "write NAME=value there");
  }

  void finish_identity() {
    identity& who = out_.settings.program.who;
    if (const auto* const group = out_.settings.find("program", "group")) {
      if (const auto gid = known_.find_group(group->value)) who.gid = gid;
    }
    if (who.uid && !who.gid) {
      fail("program", "user", "nothing says which group the user has", "add group = NAME");
      return;
    }
    if (!who.gid) {
      if (const auto* const groups = out_.settings.find("program", "groups"); groups != nullptr)
        fail("program", "groups", "they need a group or a user", "add group = NAME");
      return;
    }
    who.groups = known_.groups_of(who.name, *who.gid);
    const auto* const groups = out_.settings.find("program", "groups");
    if (groups == nullptr) return;
    who.are_groups_named = true;
    who.groups = {*who.gid};
    for (const std::string& name : split_names(groups->value)) {
      if (const auto gid = known_.find_group(name)) who.groups.push_back(*gid);
    }
  }

  void check_whole() {
    const program_file& file = out_.settings;
    if (file.find("program", "command") == nullptr)
      fail("program", "command", "there is no command", "add command = PROGRAM to [program]");
    if (file.restart.delay > file.restart.longest)
      fail("restart", file.line_of("restart", "delay") > 0 ? "delay" : "longest",
           "delay is above longest", "write longest = " + std::string("a longer duration"));
    check_log();
    check_probes();
    out_.log_is_right = !log_is_wrong_;
  }

  void check_log() {
    const log_settings& log = out_.settings.log;
    const auto* const target = out_.settings.find("log", "to");
    if (target == nullptr && log.file.empty()) {
      fail_log_keys("it needs a file", "add file = PATH to [log]");
    } else if (log.target == log_target::file && log.file.empty()) {
      log_is_wrong_ = true;
      fail("log", "to", "there is no file", "add file = PATH to [log]");
    } else if (target != nullptr && target->value != "file") {
      // Whichever of the two came last has won so far.
      log_is_wrong_ = log_is_wrong_ || !log.file.empty();
      fail_log_keys("it means nothing with to = " + target->value, "leave it out");
    } else if (!log.file.empty() && log.stderr_file == log.file) {
      // Two who rotate one file would take it from each other.
      log_is_wrong_ = true;
      fail("log", "stderr", "it is the log itself", "write stderr = same");
    }
  }

  void fail_log_keys(const std::string& text, const std::string& remedy) {
    for (const program_file::setting& given : out_.settings.stated) {
      if (given.section == "log" && given.key != "to") fail("log", given.key, text, remedy);
    }
  }

  void check_probes() {
    const auto needs_probe = [&](std::string_view section, const probe_settings& probe) {
      const auto& stated = out_.settings.stated;
      const auto first = std::find_if(stated.begin(), stated.end(),
                                      [&](const auto& given) { return given.section == section; });
      const bool is_wrong =
          std::any_of(out_.findings.begin(), out_.findings.end(), [&](const file_finding& one) {
            const auto* const given = out_.settings.find(section, one.key);
            return given != nullptr && given->line == one.line;
          });
      if (first != stated.end() && probe.how == probe_settings::kind::none && !is_wrong)
        fail(section, first->key, "nothing in [" + std::string(section) + "] says how to ask",
             section == "ready" ? "add tcp, http, unix, file, command or notify"
                                : "add tcp, http or command");
    };
    needs_probe("ready", out_.settings.ready.probe);
    needs_probe("health", out_.settings.health.probe);
  }

  program_file_result& out_;
  const accounts known_;
  key_reading into_;
  bool log_is_wrong_ = false;
};

program_file_result refuse_whole(std::string text, std::string remedy) {
  program_file_result result;
  result.findings.push_back({0, {}, std::move(text), std::move(remedy)});
  return result;
}

}  // namespace

program_file_result read_program_text(std::string_view text, const std::string& path) {
  if (text.size() > kLargestProgramFile)
    return refuse_whole("it is larger than 1M", "name a program file");
  program_file_result result;
  line_reader(result).read(text);
  meaning_reader(result, path).read();
  std::stable_sort(result.findings.begin(), result.findings.end(),
                   [](const file_finding& a, const file_finding& b) { return a.line < b.line; });
  return result;
}

program_file_result read_program_file(const std::string& path) {
  std::string text;
  const std::string error = read_text_file(path, "it", kLargestProgramFile, text);
  if (error.empty()) return read_program_text(text, path);
  const bool is_unreadable = error.starts_with("cannot");
  return refuse_whole(error, is_unreadable ? "" : "name a program file");
}

}  // namespace runner
