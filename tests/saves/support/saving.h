#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>

#include "tests/e2e/support/installation.h"

/// What the tests of ways to save a configuration share. Each save puts another name into
/// server.ini, as the last word of the file: a supervisor that prints the name has read all of it.
namespace saving {

/// A directory outside of /tmp for everything that is made in there: editors keep no backups of
/// files in /tmp, and TMPDIR. In effect for as long as the object lives.
class place_for_backups final {
 public:
  place_for_backups();
  place_for_backups(const place_for_backups&) = delete;
  place_for_backups& operator=(const place_for_backups&) = delete;
  ~place_for_backups();

 private:
  std::string before_;
};

/// A name for the file. All are equally long: none is a part of another, and a save does not change
/// the file's size.
std::string name_of(int number);

/// One save: `before` is the name in the file, and `after` the name that takes its place.
struct change {
  std::string before;
  std::string after;
};

/// Saves the configuration, and returns when that is done.
using save_function = std::function<void(const change&)>;

/// A way of saving.
struct way {
  std::string name;
  /// The program that it takes; a test without it is skipped.
  std::string program;
  /// What happens in the installation before the supervisor is started, as shell commands.
  std::string prepare;
  /// Begins to use the installation, whose supervisor runs. What it returns is called once for each
  /// save, and goes before the installation does.
  std::function<save_function(const installation&)> begin;
  /// How often it is done in the short form.
  int in_short = 1;
  /// Whether the supervisor is an ordinary user's. The file is that user's then, and root saves.
  bool for_other_user = false;
};

/// Names it where a test fails.
std::ostream& operator<<(std::ostream& out, const way& how);

/// Names a test after its parameter.
struct by_name {
  template <typename Parameter>
  std::string operator()(const testing::TestParamInfo<Parameter>& info) const {
    return info.param.name;
  }
};

/// A way that is a few shell commands. They find the names in $OLD and $NEW, a whole new file at
/// $WHOLE, which they may take away, and the supervisor's user in $OWNER.
way by_shell(const std::string& name, const std::string& program, const std::string& commands,
             const std::string& prepare = "");

/// Runs shell commands in the installation's directory. Throws when they fail.
void run(const installation& place, const std::string& commands, const change& names = {});

/// The environment of a person who has configured nothing: for a process that is about to be a
/// tool.
void use_defaults(const installation& place);

/// Saves again and again, each time when the supervisor has watched for a random moment, and
/// expects that each save is loaded, once it is whole.
void expect_all_taken(const way& how);

}  // namespace saving
