#include "control/site/memory_meter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/control/proc/recorded_tree.h"

using control::memory_meter;
using control::proc_dir;
using control::process;
using control::program_status;

namespace {

class measured_memory : public testing::Test {
 protected:
  /// Notes how much memory a process has, in kilobytes.
  void set(pid_t pid, int kilobytes) const {
    tree_.write(pid, "smaps_rollup", "Pss:   " + std::to_string(kilobytes) + " kB\n");
  }

  /// A look at a program of the given processes. @return its memory in kilobytes.
  std::uint64_t look(const std::vector<process>& tree) {
    program_status program;
    program.tree = tree;
    std::vector<program_status> programs = {program};
    meter_.measure(proc_, programs);
    return programs.front().memory / 1024;
  }

  recorded_tree tree_{{{7, 1, "one"}, {8, 7, "two"}}};
  proc_dir proc_{tree_.root()};
  memory_meter meter_;
  process shell_{.pid = 7, .started = 1000, .resident = 100, .name = "one"};
  process program_{.pid = 8, .started = 1000, .resident = 50, .name = "two"};
};

}  // namespace

TEST_F(measured_memory, is_that_of_the_whole_tree) {
  set(7, 20);
  set(8, 3);
  EXPECT_EQ(look({shell_, program_}), 23U);
}

TEST_F(measured_memory, is_measured_anew_where_the_resident_size_has_changed) {
  set(7, 20);
  set(8, 3);
  look({shell_, program_});
  set(7, 21);
  set(8, 5);
  program_.resident = 51;
  EXPECT_EQ(look({shell_, program_}), 25U);
}

TEST_F(measured_memory, is_measured_anew_for_a_later_process_with_the_same_id) {
  set(8, 3);
  look({program_});
  set(8, 5);
  program_.started = 2000;
  EXPECT_EQ(look({program_}), 5U);
}

TEST_F(measured_memory, is_measured_anew_after_ten_looks_in_any_case) {
  set(8, 3);
  look({program_});
  set(8, 5);
  for (int i = 2; i <= 10; ++i)
    EXPECT_EQ(look({program_}), 3U) << i;
  EXPECT_EQ(look({program_}), 5U);
}

TEST_F(measured_memory, is_forgotten_when_the_process_is_gone) {
  set(8, 3);
  look({program_});
  set(8, 5);
  look({});
  EXPECT_EQ(look({program_}), 5U);
}
