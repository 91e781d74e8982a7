#pragma once

#include <string>
#include <vector>

/// One program as server.ini lists it. A key whose text is empty is left out.
struct listed_program {
  std::string name;
  std::string exepath = {};
  std::string state = "run";
};

/// The text of a server.ini that lists the programs as svr1, svr2, ...
std::string server_ini(const std::vector<listed_program>& programs);
