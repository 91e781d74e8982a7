#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/e2e/support/process_table.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/server_ini.h"
#include "tests/support/text.h"
#include "tests/support/wait_until.h"

/// How a supervisor is started.
struct start_options {
  std::vector<std::string> arguments = {};
  /// What standard output is connected to; the installation's console file when negative.
  int output = -1;
  /// Runs in the new process, in the working directory, right before the supervisor is executed.
  std::function<void()> before_exec = {};
};

/// A whole installation in a scratch directory, with the real binary: its configuration, its
/// programs and the daemon that supervises them.
///
/// Written for one thread. What fails for reasons of the machine, or leaves a test nothing to go on
/// with, throws std::runtime_error; the rest is for the tests to judge. The destructor kills every
/// process that was started below this installation, and fails the test when a sanitizer complained
/// in one of them.
class installation final {
 public:
  /// @param site name of the working directory, below the scratch directory.
  explicit installation(std::string_view site = "site");
  installation(const installation&) = delete;
  installation& operator=(const installation&) = delete;
  ~installation();

  // Files ---------------------------------------------------------------------------------------

  /// The directory in which the supervisor is started.
  [[nodiscard]] const std::filesystem::path& site() const { return site_; }
  /// A file of it, whole; empty when there is none.
  [[nodiscard]] std::string read(std::string_view name) const { return read_file(site_ / name); }
  [[nodiscard]] bool has(std::string_view name) const { return exists(site_ / name); }
  [[nodiscard]] std::string log() const { return read("keelmond.log"); }
  [[nodiscard]] bool is_live(std::string_view program) const;
  /// What was written to standard output, unless a start gave another one, and standard error.
  [[nodiscard]] std::string console() const { return scratch_.read("console"); }
  [[nodiscard]] std::string errors() const { return scratch_.read("errors"); }

  // Programs ------------------------------------------------------------------------------------

  /// Writes a shell script under a name that no other program on the machine has.
  /// @param directory where, below the working directory.
  /// @return the name.
  std::string add_script(std::string_view body, std::string_view directory = "programs");
  /// Writes any executable file under a name that no other program on the machine has.
  /// @return the name.
  std::string add_executable(std::string_view text);
  /// Writes one under the name of another one.
  void write_executable(const std::filesystem::path& path, std::string_view text) const;
  /// Writes a script under the name of another one.
  void write_script(const std::filesystem::path& path, std::string_view body) const;
  /// The beginning of a script that notes its process id, and any text, at each start.
  [[nodiscard]] std::string note_start(std::string_view text = "") const;
  /// The end of a script that then runs until a signal ends it, and leaves no orphan.
  [[nodiscard]] std::string stay() const;
  /// A program that does both.
  std::string add_steady() { return add_script(note_start() + stay()); }

  /// The entry of a program in "programs".
  [[nodiscard]] listed_program entry(const std::string& name, std::string state = "run") const;
  /// How often the program has been started.
  [[nodiscard]] std::size_t starts(const std::string& name) const { return notes(name).size(); }
  /// What the program has noted, one line for each start: process id, blank, text.
  [[nodiscard]] std::vector<std::string> notes(const std::string& name) const;
  /// Process ids of the program, each time that it runs.
  [[nodiscard]] std::vector<pid_t> running(const std::string& name) const;
  /// Waits until the program has noted `starts` starts and runs exactly once. Throws when that does
  /// not happen, for there is no process to go on with.
  /// @return its process id.
  pid_t wait_running(const std::string& name, std::size_t starts = 1) const;

  // Configuration -------------------------------------------------------------------------------

  /// Puts a new server.ini in the place of the old one, by renaming.
  void save(std::string_view text) const;
  void save(const std::vector<listed_program>& programs) const { save(server_ini(programs)); }
  /// Waits for the watch, saves, and waits until the reload is over and the pause has begun.
  void edit(const std::vector<listed_program>& programs) const { edit(server_ini(programs)); }
  void edit(std::string_view text) const;
  /// The same for any other way of modifying the file.
  void edit_by(const std::function<void()>& modify) const;

  // Life ----------------------------------------------------------------------------------------

  /// Runs the supervisor until the started process ends. @return its exit status.
  int run(const start_options& options = {});
  /// Starts the supervisor and waits until it has loaded its configuration and watches it.
  void start(const start_options& options = {});
  /// Lists the program, starts the supervisor and waits until the program runs.
  /// @return its process id.
  pid_t start_with(const std::string& name);
  /// The same for several programs. @return their process ids in the same order.
  std::vector<pid_t> start_with(const std::vector<std::string>& names);
  /// Starts the supervisor and returns at once. @return the started process.
  pid_t spawn(const start_options& options = {}) const;
  /// The daemon of the last `start`.
  [[nodiscard]] pid_t daemon() const { return daemon_; }
  void signal(int number) const;
  /// Sends the daemon a signal and waits for its end. @return its exit status.
  int shut_down_by(int number) const;
  /// Waits for the daemon's end. @return its exit status.
  int wait_end() const;

  /// How many loads the console tells of.
  [[nodiscard]] std::size_t loads() const;
  [[nodiscard]] bool is_watching() const { return process_table::count_watches(daemon_) > 0; }
  /// Whether the daemon neither watches nor reloads because of what it has seen.
  [[nodiscard]] bool is_pausing() const { return process_table::count_inotifies(daemon_) == 0; }
  void wait_watching() const;
  /// Process ids of the daemon's children.
  [[nodiscard]] std::vector<pid_t> children() const;
  /// All daemons that run in this installation and are not children of one.
  [[nodiscard]] std::vector<pid_t> daemons() const;
  /// All processes that were started below this installation.
  [[nodiscard]] std::vector<process_table::process> processes() const;

 private:
  [[noreturn]] void become_supervisor(const start_options& options) const;
  void kill_everything() const;
  void report_sanitizers() const;

  scratch_dir scratch_;
  std::filesystem::path site_;
  /// In the environment of every process of the installation.
  std::string mark_;
  pid_t daemon_ = 0;
};
