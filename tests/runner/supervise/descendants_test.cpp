#include "runner/supervise/descendants.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <vector>

#include "tests/support/in_child.h"
#include "tests/support/wait_until.h"

using runner::own_children;

namespace {

pid_t fork_one_that_stays() {
  const pid_t child = ::fork();
  if (child == 0) {
    for (;;)
      ::pause();
  }
  return child;
}

std::vector<pid_t> sorted(std::vector<pid_t> pids) {
  std::sort(pids.begin(), pids.end());
  return pids;
}

}  // namespace

TEST(own_children, are_those_that_have_not_been_reaped) {
  in_child([] {
    EXPECT_TRUE(own_children().empty());
    const pid_t first = fork_one_that_stays();
    const pid_t second = fork_one_that_stays();
    EXPECT_EQ(sorted(own_children()), sorted({first, second}));
    ::kill(first, SIGKILL);
    // It has its place until it is reaped.
    siginfo_t ended{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(first), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(own_children().size(), 2U);
    ASSERT_EQ(::waitpid(first, nullptr, 0), first);
    EXPECT_EQ(own_children(), std::vector<pid_t>{second});
    ::kill(second, SIGKILL);
    ASSERT_EQ(::waitpid(second, nullptr, 0), second);
    EXPECT_TRUE(own_children().empty());
  });
}

TEST(own_children, are_also_those_that_have_lost_their_parent) {
  in_child([] {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(fork_one_that_stays() > 0 ? 0 : 1);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    std::vector<pid_t> adopted;
    ASSERT_TRUE(wait_until([&] {
      adopted = own_children();
      return adopted.size() == 1;
    }));
    EXPECT_NE(adopted.front(), child);
    ::kill(adopted.front(), SIGKILL);
    EXPECT_EQ(::waitpid(adopted.front(), nullptr, 0), adopted.front());
  });
}
