#pragma once

/// The pid file, relative to the directory that the supervisor was started in.
inline constexpr char kPidFile[] = "run.pid";

/// The supervisor's life: what `main` hands out to the daemon control and to `signal`.
///
/// The handlers run where `supervisor_signals` lets them in, on a thread that holds nothing; none
/// interrupts another half-way.

/// The daemon's body: loads the configuration, which starts every program marked "run", and watches
/// it. Returns only when the watcher gives up.
void proc_start();

/// Stops every program by its stop command, in list order, and deletes all monitors, then
/// `g_sys_daemon`, `g_fun_misc` and `g_logFile`.
///
/// From its first step on no program is started again. The ends of programs that end within about
/// a second are still recorded; then the monitors' threads, which are neither stopped nor joined,
/// are parked at their next step, and only then is anything deleted. When a thread still hangs in
/// the file system then, nothing more is deleted, and `exit` ends the process without closing its
/// streams.
void proc_stop();

/// SIGUSR1's handler until the first configuration has been loaded. Does nothing.
void signal_reload(int sig);

/// SIGUSR2's handler: `proc_stop`, then removes the pid file and ends with status 0.
void signal_exit(int sig);

/// SIGINT's handler: `proc_stop`, then ends with status 0. The pid file stays.
void sigint_interrupt(int sig);
