#include "control/text/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace control {
namespace {

constexpr int kUsualWidth = 80;
constexpr int kUsualHeight = 24;

const char* code_of(tone how) {
  switch (how) {
    case tone::good:
      return "\033[32m";
    case tone::warning:
      return "\033[33m";
    case tone::bad:
      return "\033[31m";
    case tone::faint:
      return "\033[2m";
    default:
      return "";
  }
}

bool wants_colours() {
  const char* const refused = std::getenv("NO_COLOR");
  const char* const kind = std::getenv("TERM");
  return (refused == nullptr || *refused == '\0') && kind != nullptr &&
         std::strcmp(kind, "dumb") != 0;
}

winsize size() {
  winsize found{};
  ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &found);
  return found;
}

}  // namespace

terminal::terminal()
    : is_terminal_(::isatty(STDOUT_FILENO) == 1), colours_(is_terminal_ && wants_colours()) {}

int terminal::width() const {
  if (!is_terminal_) return 0;
  const int columns = size().ws_col;
  return columns > 0 ? columns : kUsualWidth;
}

int terminal::height() const {
  const int rows = size().ws_row;
  return rows > 0 ? rows : kUsualHeight;
}

std::string terminal::painted(const std::string& text, tone how) const {
  if (!colours_ || how == tone::plain) return text;
  return code_of(how) + text + "\033[0m";
}

}  // namespace control
