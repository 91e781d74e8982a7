#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// The most that is read of a file that may be of any kind: what has more, as /dev/zero has, is no
/// small file.
inline constexpr std::size_t kLargestSmallFile = std::size_t{16} * 1024 * 1024;

/// Reads a file whole, of /proc or on a disk, that is named relative to the directory `dir` (or
/// AT_FDCWD). The kernel hands out as much of such a file as fits, so a read that leaves half of
/// its buffer empty is the last. Never waits for a writer of a pipe.
/// @return false, with errno set and nothing in `out`, when it cannot be read; EFBIG when it has
/// more than `kLargestSmallFile`.
bool read_small_file(int dir, const char* path, std::string& out);

/// Appends what can be read from `fd` to `out`. @return false, with errno set, when reading failed;
/// EFBIG when `out` has come to be larger than `most`.
bool read_to_end(int fd, std::string& out, std::size_t most = std::string::npos);
/// Writes the text whole. @return false, with errno set, when that is not possible.
bool write_whole(int fd, std::string_view text);
