#pragma once

#include <string_view>

namespace runner {

/// Writes one line of the launcher's own, which has its end, to standard error: whole, or not at
/// all when somebody would have to be waited for. One of more than a page is cut.
void write_standard_error(std::string_view line);

}  // namespace runner
