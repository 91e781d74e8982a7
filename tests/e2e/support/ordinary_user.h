#pragma once

#include <sys/types.h>

#include <string>

/// The user as whom root can have tests run: for root, permissions mean nothing.
namespace ordinary_user {

/// Whether the environment asks for the tests to be run by an ordinary user.
bool is_wanted();

/// An id that is nobody's, and different for tests that run at the same time.
uid_t id();

/// Gives the powers of root up for good.
/// @return why the tests cannot be run by an ordinary user now; empty when they can.
std::string become();

}  // namespace ordinary_user
