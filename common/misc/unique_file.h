#pragma once

#include <cstdio>
#include <memory>

/// Closes the stream that it is given.
struct file_closer {
  void operator()(std::FILE* stream) const noexcept { std::fclose(stream); }
};

/// Owns one stdio stream and closes it in the end.
using unique_file = std::unique_ptr<std::FILE, file_closer>;
