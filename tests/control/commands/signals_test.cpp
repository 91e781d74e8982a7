#include "control/commands/signals.h"

#include <gtest/gtest.h>

#include <csignal>

#include "control/commands/session.h"
#include "control/text/failure.h"

namespace {

TEST(signals, have_the_names_and_numbers_that_a_program_file_takes) {
  EXPECT_EQ(control::parse_signal("USR2"), SIGUSR2);
  EXPECT_EQ(control::parse_signal("SIGHUP"), SIGHUP);
  EXPECT_EQ(control::parse_signal("IO"), SIGIO);
  EXPECT_EQ(control::parse_signal("POLL"), SIGIO);
  EXPECT_EQ(control::parse_signal("9"), SIGKILL);
}

TEST(signals, that_are_unknown_are_an_error_of_usage) {
  for (const char* const none : {"", "0", "65", "hup", "NONSENSE"}) {
    try {
      control::parse_signal(none);
      ADD_FAILURE() << none;
    } catch (const control::failure& refused) {
      EXPECT_EQ(refused.exit_status(), control::exit_status::kUsage) << none;
    }
  }
}

}  // namespace
