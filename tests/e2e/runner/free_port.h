#pragma once

#include <string>

/// A port of this machine that nothing listens at, another one with each call. Not one of those
/// that the system hands out itself, so that nobody is given it before the test's program has it.
std::string free_port();
