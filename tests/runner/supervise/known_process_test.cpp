#include "runner/supervise/known_process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tests/runner/supervise/launcher_place.h"
#include "tests/support/in_child.h"
#include "tests/support/wait_until.h"

using runner::known_process;
using runner::process_stat;
using runner::read_process_stat;

namespace {

pid_t start_waiting() {
  const pid_t pid = ::fork();
  if (pid == 0) {
    for (;;)
      ::pause();
  }
  return pid;
}

void expect_a_process_to_be_known() {
  const pid_t pid = start_waiting();
  const process_stat who = *read_process_stat(pid);
  process_stat later = who;
  ++later.started;

  const known_process known(who);
  const known_process other(later);
  EXPECT_FALSE(known.has_ended());
  EXPECT_TRUE(other.has_ended());
  EXPECT_FALSE(other.send(SIGKILL));
  EXPECT_FALSE(known.has_ended());

  EXPECT_TRUE(known.send(SIGKILL));
  EXPECT_TRUE(wait_until([&] { return known.has_ended(); }));
  ::waitpid(pid, nullptr, 0);
  EXPECT_TRUE(known.has_ended());
  EXPECT_FALSE(known.send(SIGKILL));
  EXPECT_TRUE(known_process(who).has_ended());
}

}  // namespace

TEST(known_process, is_not_taken_for_another_one_with_its_number) {
  in_child(expect_a_process_to_be_known);
}

TEST(known_process, nor_where_there_are_no_handles) {
  in_child([] {
    have_no_process_handles();
    EXPECT_LT(known_process(*read_process_stat(::getpid())).fd(), 0);
    expect_a_process_to_be_known();
  });
}
