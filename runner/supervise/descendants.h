#pragma once

#include <sys/types.h>

#include <vector>

namespace runner {

/// The children of this process, adopted ones included. One thread has to be all that it has.
std::vector<pid_t> own_children();

}  // namespace runner
