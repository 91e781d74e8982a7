#pragma once

#include <string>

/// The texts that the supervisor writes when it starts and shuts down, as users and their scripts
/// know them.
namespace golden {

inline constexpr char kFirstLine[] =
    "keelmond --------------------------111----------------------------------\r\n";
inline constexpr char kSecondLine[] =
    "keelmond ----------------------222--------------------------------------\r\n";
inline constexpr char kAnotherInstance[] = "Existing a copy of this daemon! \n";
inline constexpr char kLoad[] = "loadServerConfig : ./config/server.ini\r\n";
inline constexpr char kWaitReturned[] = "Waiting has returned.\r\n";
inline constexpr char kDaemonEnds[] = "\ng_sys_daemon init_daemon \r\n";

/// Lines of the log, as `masked` shows them.
inline constexpr char kLogStart[] =
    "\r\n-------------333-------------------------------- Running\r\n"
    "keelmond Start PID: <pid> \r\n<time>\r\n";
inline constexpr char kLaunched[] = "launched sub process PID: <pid> \r\n<time>\r\n";
inline constexpr char kExited[] = "exited process PID: 4294967295  errno: 10\r\n<time>\r\n";
inline constexpr char kClosed[] = "XXXXXXXXXXX No finish for close log file. \n";

inline std::string read_entry(const std::string& name) {
  return "read ini file " + name + " \r\n";
}

/// What the console tells of an entry that is started for the first time.
inline std::string started(const std::string& name) {
  return read_entry(name) + "monitor " + name + " Start 333.\r\n";
}

/// The result is always -1: SIGCHLD is ignored, so nobody can learn how the command ended.
inline std::string stop_result(const std::string& name) {
  return "kill -USR2 result: kill -USR2 `pgrep " + name + "`, -1 \r\n";
}

}  // namespace golden
