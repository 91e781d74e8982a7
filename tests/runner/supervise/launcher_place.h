#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "runner/file/state_file.h"
#include "tests/support/scratch_dir.h"

/// From now on, the kernel gives this process, and those that it starts, no handles on processes.
void have_no_process_handles();

/// A directory with one program file and the files of its state, and a launcher for it in a forked
/// process, below no supervisor. Calls that are redirected there stay so in it.
class launcher_place final {
 public:
  launcher_place();
  launcher_place(const launcher_place&) = delete;
  launcher_place& operator=(const launcher_place&) = delete;
  /// Ends the launcher as a supervisor would, and everything with it.
  ~launcher_place();

  /// Writes the program file; `text` begins with keys of the section `program`.
  void write(std::string_view text) const;
  /// Starts the launcher. @param prepare runs in its process before it.
  void start(const std::function<void()>& prepare = {});
  [[nodiscard]] pid_t pid() const { return pid_; }
  /// The program file's name.
  [[nodiscard]] const std::string& name() const { return name_; }
  /// The directory in which the program runs.
  [[nodiscard]] const scratch_dir& directory() const { return directory_; }

  void send(int signal) const;
  /// Waits for the launcher's end, however it comes. @return whether it has come.
  bool wait_end();

  [[nodiscard]] std::optional<runner::program_state> state() const;
  /// Waits for a phase, and gives up with an exception. @return the state then.
  [[nodiscard]] runner::program_state wait_phase(runner::program_phase phase) const;
  /// Waits until a file in the directory has this text. @return the last that it had.
  [[nodiscard]] std::string wait_text(std::string_view file, const std::string& text) const;
  /// What has been written to standard error.
  [[nodiscard]] std::string errors() const { return directory_.read("errors"); }

 private:
  scratch_dir directory_;
  std::string name_;
  pid_t pid_ = 0;
};
