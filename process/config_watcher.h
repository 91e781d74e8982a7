#pragma once

/// The configuration file, relative to the directory that the supervisor was started in.
inline constexpr char kConfigPath[] = "./config/server.ini";

/// Waits for modifications of a file and raises SIGUSR1 on its own thread for each. The body of the
/// watcher's thread, and the only place where the supervisor's signals are let in while programs
/// are supervised.
///
/// Each round uses a fresh inotify instance, with a watch on the file and one on each name that
/// leads to it. A read of its events, whatever they are, causes one reload, unless they are all
/// about other names in the directory. The save that made them is given time to be completed first,
/// and one that was made during the reload causes another. Then comes a pause of two seconds, in
/// which nothing is seen but what is saved during a reload by SIGUSR1.
/// @param path the file's name, NUL-terminated.
/// @return null, and only when there is no inotify instance left or the file cannot be watched;
///         lines on standard error say which.
void* watch_file(void* path);

/// SIGUSR1's handler once the first configuration has been loaded: loads it again when `sig` is
/// SIGUSR1, does nothing for any other value. Runs on the watcher's thread while that waits.
void server_config_changed(int sig);

/// Watches `path` on a thread of its own and waits for that thread: installs
/// `server_config_changed`, starts `watch_file` and joins it. Returns when the watcher gives up.
/// When no thread can be created the calling thread does the watching.
void monitorServerConfig(const char* path);
