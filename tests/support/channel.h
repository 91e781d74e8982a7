#pragma once

#include <cstddef>
#include <string>

#include "common/misc/unique_fd.h"

/// Two connected descriptors: a test reads what is written to the other end. Reading does not wait,
/// writing does. Each of the functions throws std::runtime_error when there is no such thing.
struct channel {
  unique_fd reader;
  unique_fd writer;
};

channel make_pipe();
channel make_socket();
/// A terminal that shows every byte as it is.
channel make_terminal();

/// What there is to be read.
std::string read_all(int fd);
std::string read_all(const channel& from);

/// Writes until nothing more goes in. @return how many bytes, each a '#'.
std::size_t fill(const channel& to);
