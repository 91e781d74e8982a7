#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

/// The texts that the supervisor writes on its way up and down, as users and their scripts know
/// them.
namespace golden {

inline constexpr char kFirstLine[] =
    "keelmond --------------------------111----------------------------------\r\n";
inline constexpr char kSecondLine[] =
    "keelmond ----------------------222--------------------------------------\r\n";
inline constexpr char kAnotherCopy[] = "Existing a copy of this daemon! \n";
inline constexpr char kLoad[] = "loadServerConfig : ./config/server.ini\r\n";
inline constexpr char kWaitReturned[] = "Waiting has returned.\r\n";
inline constexpr char kDaemonEnds[] = "\ng_sys_daemon init_daemon \r\n";

/// Log entries, as `masked` shows them.
inline constexpr char kLogStart[] =
    "\r\n-------------333-------------------------------- Running\r\n"
    "keelmond Start PID: N \r\nTIME\r\n";
inline constexpr char kLaunched[] = "launched sub process PID: N \r\nTIME\r\n";
inline constexpr char kExited[] = "exited process PID: 4294967295  errno: 10\r\nTIME\r\n";
inline constexpr char kClosed[] = "XXXXXXXXXXX No finish for close log file. \n";

/// The console up to the log's path, which has no line end.
inline std::string console_start(const installation& place) {
  return std::string(kFirstLine) + kSecondLine + (place.site() / "keelmond.log").string();
}

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

/// Waits for the log (as `masked` shows it) or the console to be exactly the wanted text: the
/// threads of the daemon write when they get to it.
inline void expect_log(const installation& place, const std::string& wanted) {
  wait_until([&] { return masked(place.log()) == wanted; });
  EXPECT_EQ(masked(place.log()), wanted);
}

inline void expect_console(const installation& place, const std::string& wanted) {
  wait_until([&] { return place.console() == wanted; });
  EXPECT_EQ(place.console(), wanted);
}
