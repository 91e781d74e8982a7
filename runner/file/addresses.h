#pragma once

#include <string_view>

#include "runner/file/program_file.h"

namespace runner {

/// "PORT" or "HOST:PORT". The host is a numeric address, IPv6 in brackets, or "localhost"; without
/// one it is 127.0.0.1. @return false, with `out` in any state, for anything else.
bool parse_tcp_address(std::string_view text, probe_settings& out);
/// "PORT", "PORT/PATH" or "http://HOST[:PORT][/PATH]".
bool parse_http_address(std::string_view text, probe_settings& out);

}  // namespace runner
