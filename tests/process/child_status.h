#pragma once

#include <cstdint>
#include <string>

/// What a process of a child begins with, as /proc/self/status tells it.

/// A set of signals out of the text of /proc/self/status.
std::uint64_t signals_in(const std::string& status, const std::string& field);

/// The set of this signal alone.
std::uint64_t bit(int sig);

/// Has the process that is to become a shell keep its /proc/self/status in the file "status"
/// instead: a shell may change what it hands on.
void note_status_instead_of_a_shell();
