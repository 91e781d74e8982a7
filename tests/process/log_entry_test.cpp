#include "process/log_entry.h"

#include <gtest/gtest.h>

#include "common/log/log_file.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/time_line.h"

namespace {

TEST(log_entry, without_a_log_does_nothing) {
  ASSERT_EQ(g_logFile, nullptr);
  append_entry("text\r\n");
}

TEST(log_entry, is_the_text_and_then_the_line_with_the_time) {
  const scratch_dir scratch;
  Tlog_file log;
  ASSERT_TRUE(log.create_log_file(scratch.file("a.log").c_str(), false));
  g_logFile = &log;
  append_entry("launched sub process PID: 7 \r\n");
  append_entry("%s\n");
  g_logFile = nullptr;
  EXPECT_EQ(with_times_masked(scratch.read("a.log")),
            "launched sub process PID: 7 \r\n<time>\r\n%s\n<time>\r\n");
}

}  // namespace
