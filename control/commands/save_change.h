#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "control/commands/session.h"

namespace control {

/// What has become of a change.
enum class applied {
  unchanged,  ///< The file said it already.
  saved,      ///< No daemon runs that could load it.
  loaded,     ///< The daemon has acted on it.
};

/// @throws failure when this user may not write the file.
void require_writable(const std::string& path);

/// Reads the configuration, changes its text and saves it, with every other keelmondctl kept away
/// meanwhile, and has the daemon load it.
/// @param change gives the new text from the old one.
/// @throws failure when it cannot be changed or saved, when a daemon may run that this user cannot
/// see, or when the load was not seen in time.
applied save_change(const session& here, std::chrono::milliseconds limit,
                    const std::function<std::string(const std::string&)>& change);

/// The same for a text that was made from `before` some time ago.
applied save_text(const session& here, std::chrono::milliseconds limit, const config_bytes& before,
                  const std::string& text);

}  // namespace control
