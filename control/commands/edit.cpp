#include "control/commands/edit.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>

#include "common/misc/small_file.h"
#include "control/commands/check.h"
#include "control/commands/checked_file.h"
#include "control/commands/save_change.h"
#include "control/config/config_save.h"
#include "control/text/failure.h"

namespace control {
namespace {

/// The copy that is edited. It stays when it holds work that was not saved.
class edited_copy final {
 public:
  explicit edited_copy(const std::string& text) {
    const char* const tmp = std::getenv("TMPDIR");
    path_ = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/server.ini.XXXXXX";
    const unique_fd file(::mkostemp(path_.data(), O_CLOEXEC));
    if (!file.valid() || !write_whole(file.get(), text)) {
      throw failure("cannot write " + path_ + ": " + std::strerror(errno));
    }
  }
  edited_copy(const edited_copy&) = delete;
  edited_copy& operator=(const edited_copy&) = delete;
  ~edited_copy() {
    if (!kept_) ::unlink(path_.c_str());
  }

  [[nodiscard]] const std::string& path() const { return path_; }
  void keep() { kept_ = true; }

 private:
  std::string path_;
  bool kept_ = false;
};

/// What the person has chosen; null when that is nothing.
const char* chosen_editor() {
  for (const char* const variable : {"VISUAL", "EDITOR"}) {
    const char* const editor = std::getenv(variable);
    if (editor != nullptr && *editor != '\0') return editor;
  }
  return nullptr;
}

void run_editor(const std::string& path) {
  const char* editor = chosen_editor();
  if (editor == nullptr && ::isatty(STDIN_FILENO) == 0) {
    throw failure("there is no terminal to edit on. Set EDITOR to a command that edits the file");
  }
  if (editor == nullptr) editor = "vi";
  // By the shell, for the variable may hold options; the path is no part of the text.
  const std::string command = std::string(editor) + " \"$0\"";
  const pid_t child = ::fork();
  if (child == 0) {
    ::execlp("sh", "sh", "-c", command.c_str(), path.c_str(), nullptr);
    ::_exit(127);
  }
  int status = 0;
  while (child > 0 && ::waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  if (child < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    throw failure("the editor \"" + std::string(editor) + "\" failed. Nothing was saved");
}

/// What the person answers; without one to ask, `otherwise`.
char ask(const std::string& question, char otherwise) {
  if (::isatty(STDIN_FILENO) == 0) return otherwise;
  std::printf("%s ", question.c_str());
  std::fflush(stdout);
  std::string answer;
  if (!std::getline(std::cin, answer)) return 'n';
  return answer.empty() ? otherwise : answer.front();
}

/// Lets edit until the text is accepted. @return false when it is given up.
bool edit_until_accepted(const session& here, const snapshot& now, const edited_copy& copy,
                         const std::string& before, checked_file& out) {
  for (;;) {
    run_editor(copy.path());
    out = check_file(here, now, copy.path());
    if (out.config.text == before) return true;
    out.shown_as = "config/server.ini";
    std::fputs(findings_as_text(out).c_str(), stderr);
    const int found = status_for(out.found);
    std::fputs(plan_as_text(here, now, merge_repeated(out.programs)).c_str(), stdout);
    const char answer = found == 2 ? ask("There are errors. Edit again (e), save all the same (s), "
                                         "or give up (n)? [e]",
                                         'n')
                                   : ask("Save this (y), edit again (e), or give up (n)? [y]", 'y');
    if (answer == 'y' || answer == 's') return true;
    if (answer == 'n') return false;
  }
}

}  // namespace

int run_edit(const session& here, const edit_options& options) {
  const snapshot now = here.look();
  if (!now.config) {
    throw failure("cannot read " + here.place.config_file() + ": `keelmondctl init` makes one");
  }
  require_visible(here, now.search);
  require_writable(here.place.config_file());
  edited_copy copy(now.config->text);
  checked_file edited;
  try {
    if (!edit_until_accepted(here, now, copy, now.config->text, edited))
      throw failure("nothing was saved");
    const config_lock alone(here.place.config_file());
    const applied how = save_text(here, options.timeout, *now.config, edited.config.text);
    say(how == applied::unchanged ? "nothing was changed"
        : how == applied::saved   ? "saved; no keelmond runs here"
                                  : "saved, and keelmond has loaded it");
  } catch (const std::exception& why) {
    const auto left = read_config(copy.path());
    if (!left || left->text == now.config->text) throw;
    copy.keep();
    throw failure(std::string(why.what()) + ". What was edited is in " + copy.path());
  }
  return exit_status::kDone;
}

}  // namespace control
