#pragma once

/// Turns the process into a background daemon and keeps a single one of it per directory, with the
/// help of a pid file.
///
/// The pid file exists and is empty while the daemon's body runs; the daemon's process id is
/// written to it only when the body has returned. An empty, readable pid file is how a running
/// daemon is recognised. A pid file that was left behind blocks every later start until somebody
/// deletes it. That is part of the interface: whether the process in it still lives is not asked.
///
/// A null file name, here and below, names no file; a null body does nothing.
///
/// All members but `signal_reload` and `signal_exit` are called while the process has one thread.
class Tsys_daemon final {
 public:
  /// @param pid_file name of the pid file. The pointer is kept, not the text.
  /// @param daemon_proc the daemon's body.
  Tsys_daemon(const char* pid_file, void (*daemon_proc)());

  /// Whether this process may go on as the only one.
  ///
  /// If the pid file can be read it may not: a process whose number is in the file is sent SIGUSR1,
  /// "Existing a copy of this daemon! " is printed, and the result is false. A number that is
  /// negative or too large is no process id, and nobody is signalled.
  bool run_only_one();

  /// Becomes a daemon in the directory `dir` and runs the body there.
  ///
  /// Forks twice; every process but the daemon ends with status 0, also when a fork fails. Returns
  /// in the daemon only: when the body has returned, or when the pid file could not be created and
  /// the body was never run. The file gets permissions 0666, and the umask stays 0.
  void init_daemon(const char* dir);

  /// Sends SIGUSR1 to the process whose number is in the pid file.
  void send_signal();

  /// Does nothing: what SIGUSR1 means until the first configuration is loaded.
  static void signal_reload(int sig);

  /// Removes the file at `path` and ends the process with status 0.
  ///
  /// Static because the handler of SIGUSR2 calls it when the object has been deleted.
  [[noreturn]] static void signal_exit(int sig, const char* path);

 private:
  const char* pid_file;
  void (*daemon_proc)();
};

/// The supervisor's daemon control. Created by `main`, deleted and set to null by `proc_stop`.
extern Tsys_daemon* g_sys_daemon;
