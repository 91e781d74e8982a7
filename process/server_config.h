#pragma once

#include <vector>

#include "process/fun_monitor.h"

/// All monitors, in the order of their creation. Only `loadServerConfig` appends to it and only
/// `proc_stop` empties it; both run where the supervisor's signals are handled, one at a time.
extern std::vector<Tfun_monitor*> monitor_list;

/// Reads the configuration at `path` and brings the monitors into line with it.
///
/// Programs marked "run" that have no monitor get one and are started; monitors that exist get the
/// state that the file gives them, and nothing else: their command stays, and a program that the
/// file no longer names keeps running. An entry whose name (127 bytes), `exepath` (511) or `state`
/// (127) is too long, or holds a NUL byte, is refused whole with a line in the log.
///
/// Runs on the daemon's main thread at start-up, then inside the SIGUSR1 handler on the watcher's
/// thread. Throws std::logic_error for a null `path` and std::bad_alloc.
void loadServerConfig(const char* path);

/// Whether the file at `path`, or its content, is another than when the last load began; also when
/// it has been deleted since. False before the first load. Called where loads are.
bool has_changed_since_load(const char* path);
