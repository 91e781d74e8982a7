#pragma once

#include <optional>

/// A PID namespace and a /proc of their own for a test program.
///
/// The supervisor stops programs by name, machine-wide; in here nothing but the test's own
/// processes can be met. And when the test is over, or is killed, the kernel kills whatever it has
/// left behind.
///
/// There are three processes between the caller and the tests: one that enters the namespace, the
/// first process in it, which reaps, and the test program, executed anew. That it is executed anew
/// makes an ordinary user lose the powers that the namespace gave: permissions mean what they mean
/// outside.
namespace private_namespace {

/// Whether this process was started by `run_again`.
bool is_inside();

/// Gives this process mounts of its own. Whoever calls this may mount there, an ordinary user too
/// until something is executed. @return whether there can be such.
bool enter_own_mounts();

/// Runs this program again, with the same arguments, in a namespace of its own.
/// @return its exit status; nothing when there can be no namespace here, and nothing has run.
std::optional<int> run_again(char** argv);

}  // namespace private_namespace
