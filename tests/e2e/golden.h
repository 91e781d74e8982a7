#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/e2e/support/installation.h"
#include "tests/support/golden.h"
#include "tests/support/log_text.h"
#include "tests/support/wait_until.h"

namespace golden {

/// The console up to the log's path, which has no line end.
inline std::string console_start(const installation& place) {
  return std::string(kFirstLine) + kSecondLine + (place.site() / "keelmond.log").string();
}

}  // namespace golden

/// Waits for the log (as `masked` shows it) or the console to be exactly the wanted text: the
/// threads of the daemon write when they get to it.
inline void expect_log(const installation& place, const std::string& wanted) {
  wait_until([&] { return with_times_and_pids_masked(place.log()) == wanted; });
  EXPECT_EQ(with_times_and_pids_masked(place.log()), wanted);
}

inline void expect_console(const installation& place, const std::string& wanted) {
  wait_until([&] { return place.console() == wanted; });
  EXPECT_EQ(place.console(), wanted);
}
