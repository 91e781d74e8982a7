#pragma once

#include <string>

/// A name for a program that no other process on the machine has, of 15 characters, so that it can
/// be found by it. It is not part of any other one, because all are equally long.
std::string unique_name();
