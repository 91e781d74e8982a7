#include "control/text/raw_keyboard.h"

#include <poll.h>
#include <unistd.h>

#include <cstdio>

namespace control {

raw_keyboard::raw_keyboard() {
  ::tcgetattr(STDIN_FILENO, &before_);
  termios raw = before_;
  // Ctrl-C is a key like "q" here: a signal would leave the terminal as it is.
  raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
  ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  std::fputs("\033[?1049h\033[?25l", stdout);
}

raw_keyboard::~raw_keyboard() {
  std::fputs("\033[?25h\033[?1049l", stdout);
  std::fflush(stdout);
  ::tcsetattr(STDIN_FILENO, TCSANOW, &before_);
}

char raw_keyboard::wait(std::chrono::milliseconds limit) const {
  pollfd request{STDIN_FILENO, POLLIN, 0};
  const int ready = ::poll(&request, 1, static_cast<int>(limit.count()));
  if (ready <= 0) return 0;
  char key = 0;
  constexpr char kCtrlC = 3;
  return ::read(STDIN_FILENO, &key, 1) == 1 && key != kCtrlC ? key : 'q';
}

}  // namespace control
