#pragma once

/// The watcher's pause of two seconds between two rounds, in which signals are handled. In a file
/// of its own, so that a test build can put a faster clock in its place.
void pause_between_watches();
