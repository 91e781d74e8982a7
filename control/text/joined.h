#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace control {

/// The texts with `separator` between them.
std::string joined(const std::vector<std::string>& texts, std::string_view separator);

}  // namespace control
