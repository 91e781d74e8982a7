#pragma once

#include <string>
#include <vector>

namespace control {

/// What goes into a program file that keelmondctl writes. Empty texts are left out.
struct program_text_options {
  std::vector<std::string> command{};  ///< With its arguments.
  std::string directory{};
  std::string user{};
  std::vector<std::string> environment{};  ///< Each "NAME=value".
  std::string log{};                       ///< The file that takes the output.
  std::vector<std::string> settings{};     ///< Any other keys, each "SECTION.KEY=VALUE".
};

/// The text of a program file.
/// @param launcher the path of keelmond-run.
/// @param path where the file is going to stand.
/// @throws failure when a program file cannot say that, or would be refused.
std::string program_text(const program_text_options& options, const std::string& launcher,
                         const std::string& path);

/// Writes an executable file whole, and nothing where there is something of that name.
/// @throws failure when it cannot be written, or when there is.
void write_new_executable(const std::string& path, const std::string& text);

}  // namespace control
