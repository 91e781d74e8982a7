#pragma once

#include <string>

namespace control {

/// Reads a file whole that is named relative to the directory `dir` (or AT_FDCWD). Never waits for
/// a writer of a pipe. @return false, with errno set and nothing in `out`, when it cannot be read.
bool read_small_file(int dir, const char* path, std::string& out);

}  // namespace control
