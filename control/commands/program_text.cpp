#include "control/commands/program_text.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/inifile/ini_line.h"
#include "common/misc/small_file.h"
#include "common/misc/unique_fd.h"
#include "control/commands/session.h"
#include "control/text/failure.h"
#include "runner/file/program_file.h"

namespace control {
namespace {

/// The word as a command of a program file has it.
std::string quoted_word(const std::string& word) {
  constexpr std::string_view kPlain = "/._-+@:,=%";
  bool plain = !word.empty();
  for (const char c : word) {
    plain = plain && ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                      static_cast<unsigned char>(c) >= 0x80 || kPlain.find(c) != kPlain.npos);
  }
  if (plain) return word;
  if (word.find('\'') == std::string::npos) return "'" + word + "'";
  std::string out = "\"";
  for (const char c : word) {
    if (std::string_view("\"\\$`").find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out + "\"";
}

void require_one_line(const std::string& text) {
  if (text.find_first_of(std::string_view("\n\r\0", 3)) == std::string::npos) return;
  throw failure("a program file cannot hold a line break within a value. Nothing was changed");
}

void append(std::string& out, const std::string& key, const std::string& value) {
  if (value.empty()) return;
  require_one_line(value);
  out.append(key).append(" = ").append(value).append("\n");
}

void append_variable(std::string& out, const std::string& variable) {
  require_one_line(variable);
  // Without blanks: a key of one letter must not have any.
  out.append(variable).append("\n");
}

/// Sections with their lines, in the order of the file.
class section_texts final {
 public:
  /// The lines of a section, which is begun if it is not there.
  std::string& operator[](const std::string& name) {
    for (auto& [known, lines] : all_) {
      if (known == name) return lines;
    }
    return all_.emplace_back(name, "").second;
  }
  [[nodiscard]] std::string whole() const {
    std::string text;
    for (const auto& [name, lines] : all_)
      text.append(text.empty() ? "[" : "\n[").append(name).append("]\n").append(lines);
    return text;
  }

 private:
  std::vector<std::pair<std::string, std::string>> all_;
};

/// A key that is to have a value.
struct setting {
  std::string section;
  std::string key;
  std::string value;
};

setting parse_setting(const std::string& text) {
  const std::size_t dot = text.find('.');
  const std::size_t equals = text.find('=');
  if (dot == std::string::npos || equals == std::string::npos || dot == 0 || dot + 1 >= equals) {
    throw failure("--set takes SECTION.KEY=VALUE, and " + text + " is none. Nothing was changed",
                  exit_status::kUsage);
  }
  return {text.substr(0, dot), text.substr(dot + 1, equals - dot - 1), text.substr(equals + 1)};
}

void append(section_texts& out, const setting& one) {
  require_one_line(one.section + one.key);
  if (one.section == "environment") {
    append_variable(out[one.section], one.key + "=" + one.value);
  } else {
    require_one_line(one.value);
    out[one.section].append(one.key).append(" = ").append(one.value).append("\n");
  }
}

/// @throws failure unless the file says that, and not something else that looks like it.
void require_said(const runner::program_file& file, const setting& one) {
  const auto* const said = file.find(one.section, one.key);
  if (said != nullptr && said->value == ini_line::trim_func(one.value)) return;
  throw failure("[" + one.section + "] of a program file can have no key " + one.key +
                " with that value. Nothing was changed");
}

}  // namespace

std::string program_text(const program_text_options& options, const std::string& launcher,
                         const std::string& path) {
  std::string command;
  for (const std::string& word : options.command)
    command += (command.empty() ? "" : " ") + quoted_word(word);
  section_texts sections;
  append(sections["program"], "command", command);
  append(sections["program"], "directory", options.directory);
  append(sections["program"], "user", options.user);
  for (const std::string& variable : options.environment) {
    if (variable.find('=') == std::string::npos)
      throw failure("--env takes NAME=value, and " + variable + " is none. Nothing was changed");
    append_variable(sections["environment"], variable);
  }
  if (!options.log.empty()) append(sections["log"], "file", options.log);
  std::vector<setting> settings;
  for (const std::string& one : options.settings)
    append(sections, settings.emplace_back(parse_setting(one)));

  std::string text = "#!" + launcher + "\n" + sections.whole();
  const runner::program_file_result read = runner::read_program_text(text, path);
  if (!read.findings.empty()) {
    const runner::file_finding& first = read.findings.front();
    throw failure((first.key.empty() ? "" : first.key + ": ") + first.text +
                  (first.remedy.empty() ? "" : "; " + first.remedy) + ". Nothing was changed");
  }
  for (const setting& one : settings)
    require_said(read.settings, one);
  return text;
}

void write_new_executable(const std::string& path, const std::string& text) {
  const unique_fd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0755));
  if (file.valid() && write_whole(file.get(), text) && ::fsync(file.get()) == 0) return;
  const int error = errno;
  if (file.valid()) ::unlink(path.c_str());
  if (error == EEXIST) {
    throw failure(
        path +
        " is there already: name another file with --exepath, or leave the command out to "
        "run the one that is there. Nothing was changed");
  }
  throw failure("cannot write " + path + ": " + std::strerror(error) + ". Nothing was changed");
}

}  // namespace control
