#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "tests/e2e/support/children.h"
#include "tests/e2e/support/ordinary_user.h"
#include "tests/e2e/support/private_namespace.h"
#include "tests/e2e/support/process_table.h"

// The tests of the tests: what keeps them apart from everything else on the machine.

TEST(private_namespace, hides_all_processes_but_the_tests_own) {
  if (!private_namespace::is_inside()) GTEST_SKIP() << "no namespaces here";
  EXPECT_EQ(::getppid(), 1);
  // Its /proc is the one of the namespace.
  ASSERT_TRUE(process_table::find(::getpid()).has_value());
  EXPECT_EQ(process_table::find(::getpid())->parent, 1);
  EXPECT_EQ(process_table::find(1)->parent, 0);
}

TEST(private_namespace, gives_an_ordinary_user_no_powers) {
  if (::geteuid() == 0 && !ordinary_user::is_wanted()) GTEST_SKIP() << "root has them anyway";
  EXPECT_NE(::geteuid(), 0U);
  EXPECT_EQ(process_table::status_field(::getpid(), "CapEff"), "0000000000000000");
}

TEST(children, tells_how_an_adopted_process_has_ended) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const pid_t grandchild = ::fork();
    if (grandchild == 0) ::_exit(7);
    ::_exit(::write(ends[1], &grandchild, sizeof grandchild) == sizeof grandchild ? 3 : 4);
  }
  children::announce(child);
  EXPECT_EQ(children::wait_for_end(child), 3);
  pid_t grandchild = 0;
  ASSERT_EQ(::read(ends[0], &grandchild, sizeof grandchild),
            static_cast<ssize_t>(sizeof grandchild));
  EXPECT_EQ(children::wait_for_end(grandchild), 7);
  ::close(ends[0]);
  ::close(ends[1]);
}
