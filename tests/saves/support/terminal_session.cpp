#include "tests/saves/support/terminal_session.h"

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "tests/e2e/support/children.h"
#include "tests/support/wait_until.h"

namespace {

[[noreturn]] void execute(std::vector<std::string> command, const std::function<void()>& prepare) {
  ::closefrom(3);
  prepare();
  std::vector<char*> argv;
  for (std::string& argument : command)
    argv.push_back(argument.data());
  argv.push_back(nullptr);
  ::execvp(argv[0], argv.data());
  ::_exit(127);
}

}  // namespace

terminal_session::terminal_session(const std::vector<std::string>& command,
                                   const std::function<void()>& prepare) {
  winsize size{};
  size.ws_row = 24;
  size.ws_col = 160;  // room for every question of an editor on one line
  int terminal = -1;
  program_ = ::forkpty(&terminal, nullptr, nullptr, &size);
  if (program_ == 0) execute(command, prepare);
  if (program_ < 0) throw std::runtime_error("forkpty");
  children::announce(program_);
  terminal_ = unique_fd(terminal);
  ::fcntl(terminal, F_SETFD, FD_CLOEXEC);
  ::fcntl(terminal, F_SETFL, O_NONBLOCK);
}

terminal_session::~terminal_session() {
  if (!children::status_of(program_)) ::kill(program_, SIGKILL);
  // Not before the terminal is closed: a program can wait for room to print in.
  terminal_ = unique_fd();
  children::wait_for_end(program_);
}

void terminal_session::type(std::string_view keys) {
  const bool typed = wait([&] {
    const ssize_t taken = ::write(terminal_.get(), keys.data(), keys.size());
    if (taken > 0) keys.remove_prefix(static_cast<std::size_t>(taken));
    return keys.empty();
  });
  if (!typed) throw std::runtime_error("nobody reads what is typed:\n" + printed_);
}

bool terminal_session::wait(const std::function<bool()>& condition) {
  return wait_until([&] {
    take_output();
    return condition();
  });
}

bool terminal_session::wait_shown(std::string_view text) {
  return wait([&] { return printed_.find(text) != std::string::npos; });
}

bool terminal_session::wait_ended() {
  return wait([this] { return children::status_of(program_).has_value(); });
}

void terminal_session::take_output() {
  char part[4096];
  for (ssize_t size = 0; (size = ::read(terminal_.get(), part, sizeof part)) > 0;)
    printed_.append(part, static_cast<std::size_t>(size));
}
