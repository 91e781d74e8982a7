#pragma once

#include <string>
#include <vector>

namespace control {

/// One command as a completion knows it.
struct completed_command {
  std::string name;
  std::string description;
  std::vector<std::string> options;  ///< With their dashes.
  bool takes_names = false;          ///< Of programs.
  bool takes_file = false;
  std::vector<std::string> settings{};  ///< What its --set can begin with, if it has one.
};

/// The script that makes a shell ("bash", "zsh" or "fish") complete these commands. The names of
/// programs come from `keelmondctl names` when they are needed.
/// @return an empty text for any other shell.
std::string completion_script(const std::string& shell,
                              const std::vector<completed_command>& commands);

}  // namespace control
