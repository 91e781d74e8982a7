#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "control/config/ini_document.h"

namespace control {

/// A program to be added. Without `exepath` the entry has none.
struct new_program {
  std::string name;
  std::string exepath = {};
  std::string state = "run";
};

/// Changes what a configuration says about one program, as a careful person would in an editor: the
/// lines concerned change and all others stay as they are.
///
/// Each function returns the new text and leaves it to the caller to save it. What the result says
/// is read again before it is returned; a change that would do more or less than was asked, as it
/// can in files that are written in an odd way, throws `failure` and names the line to change by
/// hand.
namespace config_editor {

/// Sets the state of programs that the file lists.
std::string set_state(std::string_view text, const std::vector<std::string>& names,
                      std::string_view state);
/// Lists a program behind all others, with a section of its own at the end.
std::string add_program(std::string_view text, const new_program& program);
/// Takes a program out: its numbers, its section with all that is in it. The numbers of the others
/// close up.
std::string remove_program(std::string_view text, const std::string& name);

}  // namespace config_editor
}  // namespace control
