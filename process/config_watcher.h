#pragma once

/// The configuration file, relative to the directory that the supervisor was started in.
inline constexpr char kConfigPath[] = "./config/server.ini";

/// Waits for modifications of a file and raises SIGUSR1 on its own thread for each. The body of the
/// watcher's thread, and the only place where the supervisor's signals are let in while programs
/// are supervised.
///
/// Each round uses a fresh inotify instance, reads from it once, whatever the events are, causes
/// one reload and ends with a pause of two seconds, in which modifications are not seen. A file
/// that is modified in place is given time to become quiet before the reload.
/// @param path the file's name, NUL-terminated.
/// @return null, and only when there is no inotify instance to be had or the file cannot be
///         watched; a line on standard error says which.
void* watch_file(void* path);

/// SIGUSR1's handler once the first configuration has been loaded: loads it again when `sig` is
/// SIGUSR1, does nothing for any other value. Runs on the watcher's thread while that waits.
void server_config_changed(int sig);

/// Watches `path` on a thread of its own and waits for that thread: installs
/// `server_config_changed`, starts `watch_file` and joins it. Returns when the watcher gives up.
/// When no thread is to be had the calling thread watches itself.
void monitorServerConfig(const char* path);
