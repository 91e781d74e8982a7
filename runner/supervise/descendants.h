#pragma once

#include <sys/types.h>

#include <vector>

namespace runner {

/// The children of this process, adopted ones included. This process must have only one thread.
std::vector<pid_t> own_children();

}  // namespace runner
