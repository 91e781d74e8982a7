// What restarting programs costs on this machine when nothing but the restarting is done: a loop of
// fork, exec, wait, or one of fork, `system`, wait. Usage: floor_loop exec|system PROGRAM...
//
// SIGTERM stops the programs and the loop.

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <unordered_map>

namespace {

volatile std::sig_atomic_t stopping = 0;

void stop(int /*sig*/) {
  stopping = 1;
}

pid_t launch(const char* program, bool through_shell) {
  const pid_t child = ::fork();
  if (child != 0) return child;
  if (through_shell) {
    ::_exit(std::system(program) == 0 ? 0 : 1);
  }
  ::execl(program, program, static_cast<char*>(nullptr));
  ::_exit(111);
}

void stop_programs() {
  // Again and again: the signal may reach a child before it has become its program.
  for (;;) {
    ::kill(0, SIGTERM);
    pid_t ended = 0;
    while ((ended = ::waitpid(-1, nullptr, WNOHANG)) > 0) {
    }
    if (ended < 0) return;
    ::usleep(1000);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 100;
  const bool through_shell = std::string_view(argv[1]) == "system";
  struct sigaction action {};
  action.sa_handler = stop;
  ::sigaction(SIGTERM, &action, nullptr);

  std::unordered_map<pid_t, const char*> programs;
  for (int i = 2; i < argc; ++i)
    programs.emplace(launch(argv[i], through_shell), argv[i]);
  while (stopping == 0) {
    const auto ended = programs.find(::waitpid(-1, nullptr, 0));
    if (ended == programs.end()) continue;
    const char* program = ended->second;
    programs.erase(ended);
    programs.emplace(launch(program, through_shell), program);
  }
  stop_programs();
  return 0;
}
