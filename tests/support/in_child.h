#pragma once

#include <functional>
#include <string>

/// How a forked process ended that ran a part of a test.
struct child_end {
  /// As `waitpid` tells it.
  int status = 0;
  /// Whether the body returned; false when it ended the process itself.
  bool returned = false;
  /// The failed assertions and escaped exceptions, one after the other.
  std::string failures;
};

/// Runs `body` in a forked process of its own: what is started, blocked, closed or left behind
/// there cannot reach another test.
///
/// The faults of the test hold in it. It works in an empty directory that is removed
/// afterwards, leads its own session and process group and adopts orphans. Assertions in it, on any
/// of its threads, are collected and handed back. When it ends, everything that is left of its
/// group is killed; a body that started a new session ends that itself. A body that hangs is killed
/// after 100 seconds.
child_end run_in_child(const std::function<void()>& body);

/// The same for a body that returns. What fails in it fails the calling test.
void in_child(const std::function<void()>& body);
