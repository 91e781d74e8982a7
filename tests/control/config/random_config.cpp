#include "tests/control/config/random_config.h"

unsigned random_config::below(unsigned count) {
  return std::uniform_int_distribution<unsigned>(0, count - 1)(random_);
}

std::string random_config::one_of(const std::vector<std::string>& choices) {
  return choices[below(static_cast<unsigned>(choices.size()))];
}

std::string random_config::name() {
  return one_of({"alpha", "beta", "gamma", "kmd_web", "be", "x"});
}

std::string random_config::line() {
  const std::string equals = one_of({"=", " = ", "= ", " =", "\t=\t"});
  switch (below(10)) {
    case 0:
      return "[" + name() + "]";
    case 1:
      return "[keelmond]";
    case 2:
    case 3:
      return "svr" + std::to_string(below(5)) + equals + name();
    case 4:
      return "linux" + equals + std::to_string(below(6));
    case 5:
    case 6:
      return "state" + equals + one_of({"run", "stop", "Run", "run ; why", ""});
    case 7:
      return "exepath" + equals + one_of({"/bin/true", "/bin/sleep 5", "a=b", ""});
    case 8:
      return one_of(
          {"# note", "; note", "", "", "//", "x", " ", "text", "=v", "[", "[]", "[[ab]]"});
    default:
      return one_of({"other = 1", "a = 1", "[ab] ", "[ab]\r", "\r", "k=\r"});
  }
}

std::string random_config::text() {
  std::string text;
  const std::string end = one_of({"\n", "\n", "\r\n"});
  const unsigned lines = below(25);
  for (unsigned i = 0; i < lines; ++i)
    text += one_of({"", "", "", " ", "  "}) + line() + one_of({"", "", " "}) + end;
  if (below(4) == 0) text += line();
  return text;
}
