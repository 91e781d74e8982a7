#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "process/fun_monitor.h"
#include "tests/support/captured_output.h"
#include "tests/support/golden.h"
#include "tests/support/text.h"
#include "tests/support/unique_name.h"
#include "tests/support/wait_until.h"

/// What the daemon gives its monitors, in the process of a test (see `in_child`): SIGCHLD and
/// SIGPIPE ignored, the supervisor's signals blocked, a log, a directory for the liveness files,
/// and the console caught.
///
/// Monitors' threads use it until the process ends, so it is made once and never deleted.
class supervision final {
 public:
  static supervision& begin();

  /// The log so far, with "<time>\r\n" for each time line.
  [[nodiscard]] std::string log() const;
  /// What has been printed on standard output so far.
  [[nodiscard]] std::string printed() const { return output_.text(); }
  [[nodiscard]] std::string complaints() const { return errors_.text(); }

 private:
  supervision();

  captured_output output_{1};
  captured_output errors_{2};
};

/// Writes a shell script called `name` to the working directory that can be executed.
/// @return its full path.
std::string write_program(const std::string& name, std::string_view body);

/// A monitor that its thread may use until the process ends.
Tfun_monitor& new_monitor(const std::string& command, const std::string& name,
                          const char* state = "run");

/// The lines of the log for a start and an end, with their time lines masked.
std::string launched(int pid);
std::string exited(const std::string& pid, int error);

bool exists(const std::string& path);

/// The letter that the kernel has for what a process does; 'Z' for one that has ended and is not
/// waited for, '?' for one that is gone.
char state_of(pid_t pid);
