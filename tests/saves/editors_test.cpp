#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/saves/support/saving.h"
#include "tests/saves/support/terminal_session.h"

using saving::change;
using saving::save_function;
using saving::way;

namespace {

/// What a person types. In the keys OLD and NEW stand for the names.
struct editor {
  std::string name;
  std::vector<std::string> command;
  /// Replaces the name and saves.
  std::string replace;
  std::string leave;
};

std::string with_names(std::string keys, const change& names) {
  for (const auto& [word, name] : {std::pair("OLD", names.before), {"NEW", names.after}}) {
    for (std::size_t at = 0; (at = keys.find(word, at)) != std::string::npos; at += name.size())
      keys.replace(at, 3, name);
  }
  return keys;
}

/// An editor that has the configuration open.
class open_editor final {
 public:
  open_editor(const installation& place, const editor& which)
      : place_(place),
        which_(which),
        session_(which.command, [&] { saving::use_defaults(place); }) {
    if (!session_.wait_shown("server.ini")) fail("does not show the file");
  }

  void save(const change& names) {
    session_.type(with_names(which_.replace, names));
    const auto saved = [&] {
      return place_.read("config/server.ini").ends_with("svr2 = " + names.after + "\n");
    };
    if (!session_.wait(saved)) fail("does not save");
  }

  void leave() {
    session_.type(which_.leave);
    if (!session_.wait_ended()) fail("does not end");
  }

 private:
  void fail(const std::string& what) const {
    throw std::runtime_error(which_.name + " " + what + ":\n" + session_.printed());
  }

  const installation& place_;
  const editor& which_;
  terminal_session session_;
};

/// Opens the file once, and saves again and again. Only some editors do another thing then.
way in_one_session(const editor& which, int in_short = 1) {
  return {which.name, which.command.front(), "",
          [which](const installation& place) -> save_function {
            const auto used = std::make_shared<const editor>(which);
            const auto session = std::make_shared<open_editor>(place, *used);
            return [used, session](const change& names) { session->save(names); };
          },
          in_short};
}

/// Opens the file for each save, and leaves afterwards.
way in_many_sessions(const editor& which) {
  return {which.name + "_and_left", which.command.front(), "",
          [which](const installation& place) -> save_function {
            return [which, &place](const change& names) {
              open_editor session(place, which);
              session.save(names);
              session.leave();
            };
          }};
}

editor vim(const std::string& name, const std::string& settings = "") {
  std::vector<std::string> command{"vim"};
  if (!settings.empty()) command.insert(command.end(), {"-c", "set " + settings});
  command.push_back("config/server.ini");
  return {name, command, ":%s/OLD/NEW/\r:w\r", ":q\r"};
}

editor emacs(const std::string& name, const std::string& settings = "",
             const std::string& save = "\x18\x13") {
  std::vector<std::string> command{"emacs", "-nw"};
  if (!settings.empty()) command.insert(command.end(), {"--eval", "(setq " + settings + ")"});
  command.push_back("config/server.ini");
  return {name, command, "\x1b<\x1bxreplace-string\rOLD\rNEW\r" + save, "\x18\x03"};
}

editor nano(const std::string& name, const std::vector<std::string>& options = {}) {
  std::vector<std::string> command{"nano"};
  command.insert(command.end(), options.begin(), options.end());
  command.push_back("config/server.ini");
  return {name, command, "\x1brOLD\rNEW\rA\x0f\r", "\x18"};
}

class editors : public testing::TestWithParam<way> {};

}  // namespace

TEST_P(editors, are_all_seen) {
  saving::expect_all_taken(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    with_one_session, editors,
    testing::Values(
        in_one_session(vim("vim")), in_one_session(vim("vim_with_backup", "backup")),
        in_one_session(vim("vim_with_backup_by_renaming", "backup backupcopy=no"), 2),
        in_one_session(vim("vim_with_backup_by_copying", "backup backupcopy=yes")),
        in_one_session(vim("vim_with_backup_by_either", "backup backupcopy=auto")),
        in_one_session(vim("vim_without_write_backup", "nowritebackup")),
        in_one_session(nano("nano")), in_one_session(nano("nano_with_backup", {"--backup"})),
        in_one_session(emacs("emacs"), 2),
        in_one_session(emacs("emacs_with_backup_by_copying", "backup-by-copying t")),
        in_one_session(emacs("emacs_with_backup_of_each_save", "", "\x15\x15\x15\x18\x13")),
        in_one_session(emacs("emacs_by_renaming", "file-precious-flag t"))),
    saving::by_name{});

INSTANTIATE_TEST_SUITE_P(
    with_a_session_for_each, editors,
    testing::Values(in_many_sessions(vim("vim")),
                    in_many_sessions(vim("vim_with_backup_by_renaming", "backup backupcopy=no")),
                    in_many_sessions(nano("nano")), in_many_sessions(emacs("emacs"))),
    saving::by_name{});
