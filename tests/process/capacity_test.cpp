#include "process/capacity.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "process/server_config.h"
#include "tests/support/captured_output.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/server_ini.h"

namespace {

long pid_max() {
  long number = 0;
  std::ifstream("/proc/sys/kernel/pid_max") >> number;
  return number;
}

std::string warning_before(long programs) {
  const captured_output errors(2);
  capacity::warn_before(static_cast<std::size_t>(programs));
  return errors.text();
}

TEST(capacity, says_nothing_of_what_fits) {
  EXPECT_EQ(warning_before(0), "");
  EXPECT_EQ(warning_before(1), "");
}

TEST(capacity, warns_in_one_line_when_the_machine_cannot_number_the_processes) {
  const long too_many = pid_max() / 4 + 1;
  const std::string warning = warning_before(too_many);
  EXPECT_TRUE(warning.starts_with("keelmond: " + std::to_string(too_many) +
                                  " programs need about " + std::to_string(too_many * 4) +
                                  " processes and threads, and "))
      << warning;
  EXPECT_EQ(warning.find('\n'), warning.size() - 1);
}

TEST(capacity, a_limit_of_the_user_counts_for_all_but_root) {
  in_child([] {
    const rlimit low{40, 40};
    ASSERT_EQ(::setrlimit(RLIMIT_NPROC, &low), 0);
    if (::geteuid() == 0) {
      EXPECT_EQ(warning_before(11), "");
      ASSERT_EQ(::setuid(65534), 0);
    }
    EXPECT_EQ(warning_before(10), "");
    EXPECT_NE(warning_before(11).find("and ulimit -u allows 40."), std::string::npos);
  });
}

/// Puts a directory of our own in the place of the control groups, for this process alone.
bool replace_control_groups() {
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", "/sys/fs/cgroup", "tmpfs", 0, nullptr) == 0;
}

TEST(capacity, the_limit_of_a_container_stands_at_the_top_of_what_it_sees) {
  const child_end end = run_in_child([] {
    if (!replace_control_groups()) ::_exit(77);
    ASSERT_EQ(::mkdir("/sys/fs/cgroup/pids", 0755), 0);
    for (const char* top : {"/sys/fs/cgroup", "/sys/fs/cgroup/pids"})
      write_file(std::string(top) + "/pids.max", "40\n");
    EXPECT_EQ(warning_before(10), "");
    EXPECT_NE(warning_before(11).find("/pids.max allows 40."), std::string::npos);
  });
  if (WIFEXITED(end.status) && WEXITSTATUS(end.status) == 77)
    GTEST_SKIP() << "no mount namespace of its own";
  EXPECT_TRUE(end.returned);
  EXPECT_EQ(end.failures, "");
}

TEST(capacity, is_looked_at_when_the_first_configuration_is_loaded) {
  in_child([] {
    const rlimit low{4, 4};
    ASSERT_EQ(::setrlimit(RLIMIT_NPROC, &low), 0);
    if (::geteuid() == 0) {
      ASSERT_EQ(::chmod(".", 0777), 0);
      ASSERT_EQ(::setuid(65534), 0);
    }
    // None of them is there, so nothing is started.
    write_file("server.ini", server_ini({{"aa"}, {"bb"}, {"cc", "", "stop"}}));
    const captured_output console(1);
    const captured_output errors(2);
    loadServerConfig("server.ini");
    EXPECT_TRUE(errors.text().starts_with("keelmond: 2 programs need about 8 processes"));
    loadServerConfig("server.ini");
    EXPECT_EQ(errors.text().find("keelmond", 1), std::string::npos) << "once";
  });
}

}  // namespace
