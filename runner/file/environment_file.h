#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace runner {

/// Variables in the order in which they are set.
using environment_list = std::vector<std::pair<std::string, std::string>>;

/// Whether a variable may be called that: letters, digits and "_", no digit first.
bool is_variable_name(std::string_view name);

/// What is wrong in an environment file; line 0 when nothing is.
struct environment_fault {
  std::size_t line = 0;
  std::string text;
};

/// Reads what systemd takes as an EnvironmentFile: NAME=value lines, comments that begin with "#"
/// or ";", empty lines. A value may be in '...' or "..." quotes, also in parts and over several
/// lines; a backslash takes the next character as it is ("\" at the end of a line joins the next
/// one), within double quotes only one of ", \, $ and `. Blanks around an unquoted value are
/// dropped, and nothing is expanded. Unlike there, a line that is none of these is an error and not
/// skipped.
/// @param out what was read before the error, if there is one.
environment_fault read_environment(std::string_view text, environment_list& out);

}  // namespace runner
