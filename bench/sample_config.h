#pragma once

#include <cstdint>
#include <string>

/// Configurations of any size for the benchmarks.
namespace sample_config {

/// Name of the program with this number.
std::string program_name(std::int64_t number);

/// The text of a server.ini with `count` programs, numbered from 1. Each has the given state, a
/// command that exists on every machine, and one key of each type: "count", "ratio" and "flag".
std::string server_ini(std::int64_t count, const std::string& state);

}  // namespace sample_config
