#pragma once

#include <string>

namespace control {

/// Unpacks a file with gzip and appends it to `out`. @return false when that is not possible.
bool read_compressed(const std::string& path, std::string& out);

}  // namespace control
