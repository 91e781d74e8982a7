#include "tests/support/server_ini.h"

std::string server_ini(const std::vector<listed_program>& programs) {
  std::string list = "[keelmond]\nlinux=" + std::to_string(programs.size()) + "\n";
  std::string sections;
  int number = 0;
  for (const listed_program& program : programs) {
    list += "svr" + std::to_string(++number) + "=" + program.name + "\n";
    sections += "[" + program.name + "]\n";
    if (!program.exepath.empty()) sections += "exepath=" + program.exepath + "\n";
    if (!program.state.empty()) sections += "state=" + program.state + "\n";
  }
  return list + sections;
}
