#pragma once

#include <string>

#include "tests/e2e/runner/program_files.h"

/// A port of this machine that nothing listens at, another one with each call. Not one of those
/// that the system hands out itself, so that nobody is given it before the test's program has it.
std::string free_port();

bool has_python();

/// Writes a server that takes a port as its argument. It answers each request well unless there is
/// a file "ill" beside it, and listens until there is a file "deaf". @return its path.
std::string add_http_server(runner_place& place);
