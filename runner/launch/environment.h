#pragma once

#include <string>
#include <vector>

#include "runner/file/program_file.h"

namespace runner {

/// The environment of a program, as "NAME=value" texts without a repeated name: what the launcher
/// has itself unless the file wants a clean one, then who the user is if the file names one, then
/// the file's variables, then `more`. A later one wins. What concerns the launcher alone
/// (NOTIFY_SOCKET and the like) is never handed on, nor, where the file gives a user that has no
/// name, the USER, LOGNAME, HOME and SHELL of the launcher.
std::vector<std::string> build_environment(const program_file& file, const char* const* inherited,
                                           const environment_list& more = {});

/// The value of a variable in such a list; empty when it is not there.
std::string variable_of(const std::vector<std::string>& environment, std::string_view name);

}  // namespace runner
