#include "runner/file/state_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "runner/file/process_stat.h"
#include "tests/support/fault.h"
#include "tests/support/scratch_dir.h"

using runner::parse_state;
using runner::program_phase;
using runner::program_state;
using runner::state_files;

namespace {

program_state sample() {
  program_state state;
  state.phase = program_phase::waiting;
  state.since = 1763742000123;
  state.attempt = 5;
  state.next = 1763742004123;
  state.status = "exit 1";
  state.says = "reading 3 of 5";
  state.log = "/var/log/a b.log";
  state.mark = "5f0a12bc-00000000deadbeef";
  state.launcher = ::getpid();
  state.launcher_started = runner::read_process_stat(::getpid())->started;
  return state;
}

}  // namespace

TEST(state_file, says_what_it_was_told) {
  const program_state state = sample();
  const auto read = parse_state(print_state(state));
  ASSERT_TRUE(read);
  EXPECT_EQ(print_state(*read), print_state(state));
  EXPECT_EQ(read->phase, program_phase::waiting);
  EXPECT_EQ(read->says, "reading 3 of 5");
  EXPECT_EQ(read->log, "/var/log/a b.log");
  EXPECT_EQ(read->mark, "5f0a12bc-00000000deadbeef");
}

TEST(state_file, what_is_not_known_is_skipped_and_what_has_no_phase_is_none) {
  EXPECT_EQ(parse_state("colour red\nphase running\npid x\n")->phase, program_phase::running);
  for (const char* const none : {"", "pid 1\n", "phase\n", "phase flying\n"})
    EXPECT_FALSE(parse_state(none)) << none;
}

TEST(state_file, is_replaced_and_removed_in_the_directory_notify) {
  const scratch_dir scratch;
  std::filesystem::create_directory(scratch.path() / "notify");
  const state_files files(scratch.path().string(), "kmd_x");
  EXPECT_FALSE(files.read());
  files.write(sample());
  files.set_ready(true);
  EXPECT_EQ(scratch.read("notify/kmd_x.state"), print_state(sample()));
  EXPECT_EQ(scratch.read("notify/kmd_x.ready"), "1");
  EXPECT_TRUE(files.is_ready());
  files.remove();
  EXPECT_TRUE(std::filesystem::is_empty(scratch.path() / "notify"));
}

TEST(state_file, a_program_is_ready_only_while_its_launcher_is_there) {
  const scratch_dir scratch;
  std::filesystem::create_directory(scratch.path() / "notify");
  const state_files files(scratch.path().string(), "kmd_x");
  program_state state = sample();
  ++state.launcher_started;
  files.write(state);
  files.set_ready(true);
  EXPECT_FALSE(files.is_ready());
}

TEST(state_file, without_a_supervisor_there_is_none) {
  const state_files files("", "kmd_x");
  files.write(sample());
  files.set_ready(true);
  EXPECT_FALSE(files.read());
  EXPECT_FALSE(files.is_ready());
}

TEST(state_file, on_a_full_disk_the_old_one_stays_and_nothing_else) {
  const no_faults_afterwards restore;
  const scratch_dir scratch;
  std::filesystem::create_directory(scratch.path() / "notify");
  const state_files files(scratch.path().string(), "kmd_x");
  files.write(sample());
  const std::string before = scratch.read("notify/kmd_x.state");
  faults.write = [](int, const void*, std::size_t) -> ssize_t {
    errno = ENOSPC;
    return -1;
  };
  program_state other = sample();
  other.attempt = 77;
  files.write(other);
  files.set_ready(true);
  EXPECT_EQ(scratch.read("notify/kmd_x.state"), before);
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& one :
       std::filesystem::directory_iterator(scratch.path() / "notify"))
    ++count;
  EXPECT_EQ(count, 1U);
}
