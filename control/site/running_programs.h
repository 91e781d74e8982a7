#pragma once

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "control/config/program_list.h"
#include "control/proc/proc_dir.h"
#include "control/proc/process_table.h"

namespace control {

/// A child of the daemon and what runs below it.
struct running_program {
  /// The child; where that is gone, the first below it that is left.
  process child;
  /// The name of its entry; that of the process where no entry fits. Empty while nothing runs yet.
  std::string name;
  bool listed = false;
  /// The program itself: not the daemon's child, not a shell that waits for it. None while it is
  /// started.
  std::optional<process> program;
  /// Whether that is keelmond-run, with a program of its own below it.
  bool is_launcher = false;
  /// Everything below the child, parents before their children.
  std::vector<process> tree;
};

/// What runs below the children of a daemon.
///
/// Only the daemon knows which child belongs to which entry, so that is told from what runs there:
/// the command that the shell was given, the path that the program was executed by, its name.
/// Refers to what it is made from; used by one thread.
class program_finder final {
 public:
  program_finder(const proc_dir& proc, const process_table& table,
                 const std::vector<listed_program>& programs);

  /// The programs of a living daemon, in the order of the children's starts.
  [[nodiscard]] std::vector<running_program> below(const process& daemon) const;

  /// What a daemon that is gone left running in `directory`: children without a daemon, and
  /// programs without a child. Only what certainly is of that directory counts.
  /// @param was_launched whether the directory's log says that this process was launched.
  [[nodiscard]] std::vector<running_program> left_over(
      const std::string& directory, const std::function<bool(const process&)>& was_launched) const;

 private:
  /// What is known before a name is looked for.
  struct description {
    running_program found;
    std::string command;             ///< What the shell was given; empty when no shell is left.
    std::vector<std::string> words;  ///< The command line of what runs.
  };
  using entries = std::vector<const listed_program*>;

  [[nodiscard]] std::optional<description> describe(const process& child) const;
  [[nodiscard]] std::optional<process> below_shell(const process& shell,
                                                   const std::vector<std::string>& words) const;
  [[nodiscard]] const entries* entries_by_path(const description& what) const;
  [[nodiscard]] const entries* entries_for(const description& what) const;
  void name(description& what, std::unordered_map<std::string, int>& taken) const;
  [[nodiscard]] bool is_daemon(pid_t pid) const;
  [[nodiscard]] bool is_orphan(const process& one) const;
  void append_orphaned_programs(const std::string& directory,
                                std::vector<running_program>& out) const;

  const proc_dir& proc_;
  const process_table& table_;
  std::unordered_map<std::string, entries> by_path_;
  /// By the name that the process gets.
  std::unordered_map<std::string, entries> by_name_;
};

/// What the kernel makes of a file's name when it executes the file: the first 15 bytes.
std::string process_name_of(const std::string& path);

}  // namespace control
