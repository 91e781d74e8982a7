#pragma once

#include <cstddef>
#include <string>

namespace runner {

/// Reads a text that somebody has written into a file. Needs no permission to write it, waits for
/// nobody, and reads nothing but regular files of at most `most` bytes, a multiple of 1 MiB.
/// @param name what the file is called in an error.
/// @return what is wrong, as in "it is larger than 1M"; empty, and the text in `out`, when nothing
/// is.
std::string read_text_file(const std::string& path, const std::string& name, std::size_t most,
                           std::string& out);

}  // namespace runner
