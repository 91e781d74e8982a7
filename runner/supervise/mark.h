#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

/// How the processes of one launcher are recognised when nothing else leads to them: by a variable
/// in their environment that is different for each launcher.
namespace runner {

inline constexpr char kMarkVariable[] = "KEELMOND_RUN";

/// A mark that nobody else has: "BOOT-NUMBER".
std::string make_mark();
/// Whether it was made since the machine was started. One that is not known to be older counts.
bool is_of_this_boot(std::string_view mark);
/// The mark of a process; empty when it has none, or one that may not be seen by this user.
std::string read_mark(pid_t pid);

}  // namespace runner
