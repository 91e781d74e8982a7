#include "process/forked_copy.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "common/misc/fun_misc.h"
#include "process/launcher.h"
#include "process/supervisor_signals.h"

namespace forked_copy {
namespace {

/// Close-on-exec does not help here. A copy that kept the log, the watch, the pid file or a
/// configuration file that another thread is reading would keep it open for as long as its program
/// runs; a replaced configuration file would live on, and its watch would never report.
void give_up_what_is_not_ours() noexcept {
  ::closefrom(STDERR_FILENO + 1);
  supervisor_signals::disarm_in_copy();
}

/// An int in memory that a copy shares with the process that forked it.
class shared_int final {
 public:
  shared_int() noexcept
      : at_(::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                   0)) {}
  shared_int(const shared_int&) = delete;
  shared_int& operator=(const shared_int&) = delete;
  ~shared_int() {
    if (valid()) ::munmap(at_, sizeof(int));
  }
  [[nodiscard]] bool valid() const noexcept { return at_ != MAP_FAILED; }
  int& value() noexcept { return *static_cast<int*>(at_); }

 private:
  void* at_;
};

void run_program(const char* command, void* /*unused*/) {
  give_up_what_is_not_ours();
  supervisor_signals::restore_start_mask();
  char directory[launcher::kCommandSize] = {};
  Tfun_misc::get_filename_path(command, directory, true);
  if (::chdir(directory) != 0) {
    // The program then runs in the supervisor's directory.
  }
  if (std::system(command) != 0) {
    // The copy's own end is all that the monitor looks at.
  }
  // Not by way of the exit handlers: they are the supervisor's, and may wait for a lock that a
  // thread held which is not in this copy. The program would never be started again.
  ::_exit(0);
}

void run_and_report(const char* command, void* result) {
  // The mask stays as it is: a signal sent to the supervisor by name must not hit the shell between
  // its creation and its first instruction, and lose the command.
  give_up_what_is_not_ours();
  *static_cast<int*>(result) = std::system(command);
  ::_exit(0);
}

}  // namespace

pid_t start_program(const char* command) noexcept {
  return launcher::fork_copy(run_program, command, nullptr);
}

int run_command(const char* command) noexcept {
  shared_int result;
  if (!result.valid()) return -1;
  result.value() = -1;
  const pid_t copy = launcher::fork_copy(run_and_report, command, &result.value());
  if (copy > 0) {
    while (::waitpid(copy, nullptr, 0) == -1 && errno == EINTR) {
    }
  }
  return result.value();
}

}  // namespace forked_copy
