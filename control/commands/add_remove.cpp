#include "control/commands/add_remove.h"

#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "control/check/check_config.h"
#include "control/commands/program_names.h"
#include "control/commands/save_change.h"
#include "control/commands/start_stop.h"
#include "control/config/config_editor.h"
#include "control/site/daemon_start.h"
#include "control/site/running_programs.h"
#include "control/text/failure.h"

namespace control {
namespace {

/// Only names are written that work in every place where a name is used.
void require_usable_name(const std::string& name) {
  const bool plain = is_plain_word(name) && name.find_first_of("/%.+@:,=") == std::string::npos;
  if (name.size() >= 2 && name.size() <= 15 && plain && name.front() != '-') return;
  throw failure("a program's name has 2 to 15 letters, digits, _ or -, and " + name +
                " is none. Nothing was changed");
}

/// The program's file.
std::string path_of(const session& here, const add_options& options) {
  return options.exepath.empty() ? here.place.directory + "/" + options.name : options.exepath;
}

/// What a program file runs must not be signalled in the place of keelmond-run.
void require_out_of_reach(const listed_program& program) {
  if (!runner::is_program_file(first_line_of(program.exepath))) return;
  const runner::program_file_result read = runner::read_program_file(program.exepath);
  if (!read.findings.empty()) return;
  const std::string why = why_command_is_hit(program.name, read.settings);
  if (why.empty()) return;
  throw failure(why + ": give the file and the entry another name. Nothing was changed");
}

void require_runnable(const session& here, const add_options& options) {
  listed_program program;
  program.name = options.name;
  program.exepath = path_of(here, options);
  if (!is_plain_word(program.exepath)) {
    throw failure("the shell would split or expand the path " + program.exepath +
                  ": give one of letters, digits and / . _ - only. Nothing was changed");
  }
  struct stat status {};
  if (::stat(program.exepath.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
    throw failure(program.exepath + " is a directory and cannot be run. Nothing was changed");
  const std::string why = why_skipped(program);
  if (!why.empty()) {
    throw failure(
        why + ": keelmond would skip the entry. " +
        (options.exepath.empty() ? "Put the file there, or say where it is with --exepath. " : "") +
        "Nothing was changed");
  }
  const std::string seen = process_name_of(program.exepath);
  if (!matches_as_pattern(program.name, seen)) {
    throw failure("pgrep would see the program as " + seen +
                  ", so that keelmond could not stop it as " + options.name +
                  ": name the entry like the file. Nothing was changed");
  }
  require_out_of_reach(program);
}

void require_unrelated(const session& here, const snapshot& now, const std::string& name) {
  for (const listed_program& other : now.programs) {
    if (!matches_as_pattern(name, process_name_of(other.exepath)) &&
        !matches_as_pattern(other.name, name)) {
      continue;
    }
    if (other.name == name) continue;
    warn(here, "one of the names " + name + " and " + other.name +
                   " is part of the other: to stop the one stops both");
  }
}

/// A file that was written for an entry, and goes when that does not come to be.
class new_file final {
 public:
  new_file(std::string path, const std::string& text) : path_(std::move(path)) {
    write_new_executable(path_, text);
  }
  new_file(const new_file&) = delete;
  new_file& operator=(const new_file&) = delete;
  ~new_file() {
    if (!kept_) ::unlink(path_.c_str());
  }
  void keep() { kept_ = true; }

 private:
  std::string path_;
  bool kept_ = false;
};

/// Writes the program file that the options describe, if they describe one.
std::unique_ptr<new_file> write_program_file(const session& here, const add_options& options) {
  const program_text_options& wanted = options.text;
  if (wanted.command.empty() && wanted.settings.empty()) {
    if (wanted.directory.empty() && wanted.user.empty() && wanted.environment.empty() &&
        wanted.log.empty()) {
      return nullptr;
    }
    throw failure("--directory, --user, --env and --log go with a command: add NAME ... -- COMMAND",
                  exit_status::kUsage);
  }
  const std::string path = path_of(here, options);
  return std::make_unique<new_file>(
      path, program_text(wanted, find_installed_program("keelmond-run"), path));
}

}  // namespace

int run_add(const session& here, const add_options& options) {
  require_usable_name(options.name);
  const snapshot now = here.look();
  if (now.find(options.name) != nullptr) {
    throw failure("there is a program " + options.name +
                  " already: `keelmondctl remove` takes it out. Nothing was changed");
  }
  const std::unique_ptr<new_file> file = write_program_file(here, options);
  require_runnable(here, options);
  require_unrelated(here, now, options.name);
  const char* const state = options.stopped ? "stop" : "run";
  const auto keep_file = [&] {
    if (!file) return;
    file->keep();
    say("wrote " + path_of(here, options));
  };
  applied how{};
  try {
    how = save_change(here, options.timeout, [&](const std::string& text) {
      return config_editor::add_program(text, {options.name, options.exepath, state});
    });
  } catch (const failure&) {
    // Saved, and not seen to be loaded: the list names the file now.
    if (here.look().find(options.name) != nullptr) keep_file();
    throw;
  }
  keep_file();
  say("added " + options.name);
  if (options.stopped || how != applied::loaded) return exit_status::kDone;
  const auto left = wait_for_programs(here, {options.name}, true, options.timeout);
  for (const std::string& text : left)
    warn(here, text);
  return left.empty() ? exit_status::kDone : exit_status::kFailed;
}

int run_remove(const session& here, const remove_options& options) {
  // The exact name, and no pattern: what is gone has to be written anew.
  const snapshot now = here.look();
  require_visible(here, now.search);
  if (now.find(options.name) == nullptr)
    throw failure("there is no program " + options.name + " in config/server.ini");
  const bool runs = now.find_running(options.name) != nullptr;
  if (runs) {
    const stop_options stop{{}, false, options.force, options.timeout};
    const int status = stop_programs(here, {options.name}, stop);
    if (status != exit_status::kDone) {
      throw failure(options.name + " has not ended, so its entry stays");
    }
  }
  save_change(here, options.timeout, [&](const std::string& text) {
    return config_editor::remove_program(text, options.name);
  });
  say("removed " + options.name);
  return exit_status::kDone;
}

}  // namespace control
