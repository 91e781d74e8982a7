#pragma once

#include <string>

/// The path of the supervisor that the tests run: the one that was built with them, or the one that
/// the environment names in KEELMOND_BINARY, which may be linked with another C library.
std::string supervisor_binary();
/// Whether it is another one than was built with the tests.
bool is_other_supervisor_binary();
