#include "control/commands/program_text.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "common/misc/small_file.h"
#include "common/misc/unique_fd.h"
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

}  // namespace

std::string program_text(const program_text_options& options, const std::string& launcher,
                         const std::string& path) {
  std::string command;
  for (const std::string& word : options.command)
    command += (command.empty() ? "" : " ") + quoted_word(word);
  std::string text = "#!" + launcher + "\n[program]\n";
  append(text, "command", command);
  append(text, "directory", options.directory);
  append(text, "user", options.user);
  if (!options.environment.empty()) text += "\n[environment]\n";
  for (const std::string& variable : options.environment) {
    const std::size_t equals = variable.find('=');
    if (equals == std::string::npos)
      throw failure("--env takes NAME=value, and " + variable + " is none. Nothing was changed");
    require_one_line(variable);
    // Without blanks: a key of one letter must not have any.
    text += variable + "\n";
  }
  if (!options.log.empty()) text += "\n[log]\n";
  append(text, "file", options.log);

  const runner::program_file_result read = runner::read_program_text(text, path);
  if (read.findings.empty()) return text;
  const runner::file_finding& first = read.findings.front();
  throw failure((first.key.empty() ? "" : first.key + ": ") + first.text +
                (first.remedy.empty() ? "" : "; " + first.remedy) + ". Nothing was changed");
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
