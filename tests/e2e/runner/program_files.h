#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runner/file/state_file.h"
#include "tests/e2e/support/installation.h"

/// The text of a program file that hands a command to the shell, and more lines behind that.
std::string shell_text(const std::string& command, const std::string& more = "");

/// An installation whose programs are program files.
class runner_place final {
 public:
  /// Adds a program file with this text behind its first line, and has it run. @return its name.
  std::string add(std::string_view text);
  /// The same with a command that notes its start and stays, and more text behind that.
  std::string add_steady(std::string_view more = "");
  /// Writes another text into the file of a program.
  void write(const std::string& name, std::string_view text);
  /// Starts the supervisor with what has been added.
  void start(const start_options& options = {});
  /// Has the supervisor end a program, and waits until it has.
  void stop(const std::string& name);

  [[nodiscard]] installation& site() { return place_; }
  [[nodiscard]] const installation& site() const { return place_; }
  [[nodiscard]] std::string path_of(const std::string& name) const {
    return (place_.site() / "programs" / name).string();
  }
  /// A file beside the program files.
  [[nodiscard]] std::string read(const std::string& file) const {
    return place_.read("programs/" + file);
  }
  /// Waits until a file beside the program files has this text. @return the last that it had.
  [[nodiscard]] std::string wait_text(const std::string& file, const std::string& text) const;
  /// Waits until standard error has this text. @return whether it has.
  [[nodiscard]] bool tells(const std::string& text) const;

  [[nodiscard]] std::optional<runner::program_state> state(const std::string& name) const;
  /// Waits for a phase, and gives up with an exception. @return the state then.
  runner::program_state wait_phase(const std::string& name, runner::program_phase phase) const;
  /// The same for another run than that of `before`.
  runner::program_state wait_again(const std::string& name, pid_t before) const;
  /// Waits until the launcher is the only process with the name of its program. What it forks has
  /// that name as well, until it is executed.
  [[nodiscard]] bool runs_once(const std::string& name, pid_t launcher) const;
  [[nodiscard]] bool is_ready(const std::string& name) const {
    return place_.read("notify/" + name + ".ready") == "1";
  }

 private:
  installation place_;
  std::vector<listed_program> programs_;
};
