#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/e2e/support/installation.h"

/// What a keelmondctl has done.
struct control_result {
  int status = -1;  ///< 128 and the signal's number when a signal ended it.
  std::string output;
  std::string errors;
};

/// Runs keelmondctl in an installation's directory and waits for its end.
control_result control(const installation& place, const std::vector<std::string>& arguments);

/// One that runs on while the test does something else.
class running_control final {
 public:
  running_control(const installation& place, const std::vector<std::string>& arguments);
  running_control(const running_control&) = delete;
  running_control& operator=(const running_control&) = delete;
  /// Ends it if it still runs.
  ~running_control();

  [[nodiscard]] pid_t pid() const { return pid_; }
  [[nodiscard]] std::string output() const { return scratch_.read("output"); }
  [[nodiscard]] std::string errors() const { return scratch_.read("errors"); }
  /// Waits for its end.
  control_result wait();

 private:
  scratch_dir scratch_;
  pid_t pid_;
};

/// Whether the process holds on to another one.
bool holds_process(pid_t pid);

/// The daemon of an installation, however it was started; 0 when there is none.
pid_t daemon_of(const installation& place);

/// The row of a program in the table of `status`, its columns separated by single blanks.
std::string row_of(const std::string& table, const std::string& name);
