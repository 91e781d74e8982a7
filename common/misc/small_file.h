#pragma once

#include <string>
#include <string_view>

/// Reads a file whole, of /proc or on a disk, that is named relative to the directory `dir` (or
/// AT_FDCWD). The kernel hands out as much of such a file as fits, so a read that leaves half of
/// its buffer empty is the last. Never waits for a writer of a pipe.
/// @return false, with errno set and nothing in `out`, when it cannot be read.
bool read_small_file(int dir, const char* path, std::string& out);

/// Appends what can be read from `fd` to `out`. @return false, with errno set, when reading failed.
bool read_to_end(int fd, std::string& out);
/// Writes the text whole. @return false, with errno set, when that is not possible.
bool write_whole(int fd, std::string_view text);
