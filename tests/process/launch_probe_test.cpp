#include "process/launch_probe.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "tests/process/supervision.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/wait_until.h"

namespace {

/// Forks a process that runs `body` and then waits to be killed; the group of the test is killed
/// at its end.
pid_t start(const std::function<void()>& body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    body();
    for (;;)
      ::pause();
  }
  return pid;
}

void run(const char* file, const char* first, const char* second) {
  ::execl(file, first, second, "sleep 60; :", nullptr);
}

std::string name_of(pid_t pid) {
  const std::string line = read_file("/proc/" + std::to_string(pid) + "/comm");
  return line.substr(0, line.find('\n'));
}

/// Waits until the process `pid` has the name.
bool has_name(pid_t pid, const std::string& name) {
  return wait_until([&] { return name_of(pid) == name; });
}

/// Waits for the child of `pid` and returns its number.
pid_t child_of(pid_t pid) {
  const std::string number = std::to_string(pid);
  std::string text;
  wait_until([&] {
    text = read_file("/proc/" + number + "/task/" + number + "/children");
    return !text.empty();
  });
  return text.empty() ? 0 : std::stoi(text);
}

TEST(launch_probe, a_copy_that_is_gone_is_not_waited_for) {
  in_child([] {
    const pid_t gone = ::fork();
    if (gone == 0) ::_exit(0);
    ASSERT_EQ(::waitpid(gone, nullptr, 0), gone);
    EXPECT_TRUE(launch_probe::is_findable(gone));
    EXPECT_TRUE(launch_probe::is_findable(0));
    EXPECT_TRUE(launch_probe::is_findable(-1));
  });
}

TEST(launch_probe, a_copy_without_a_child_has_not_started_its_program) {
  in_child([] {
    const pid_t copy = start([] {});
    EXPECT_FALSE(launch_probe::is_findable(copy));
  });
}

TEST(launch_probe, a_child_that_is_still_a_copy_is_not_the_program) {
  in_child([] {
    const pid_t copy = start([] { start([] {}); });
    ASSERT_GT(child_of(copy), 0);
    EXPECT_FALSE(launch_probe::is_findable(copy));
  });
}

TEST(launch_probe, a_shell_without_a_child_is_not_the_program) {
  in_child([] {
    // A shell that waits for its input, which never comes.
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t copy = start([&] {
      start([&] {
        ::dup2(ends[0], 0);
        ::execl("/bin/sh", "sh", nullptr);
      });
    });
    ASSERT_TRUE(has_name(child_of(copy), "sh"));
    EXPECT_FALSE(launch_probe::is_findable(copy));
  });
}

TEST(launch_probe, a_child_of_the_shell_is_the_program) {
  in_child([] {
    const pid_t copy = start([] { start([] { run("/bin/sh", "sh", "-c"); }); });
    const pid_t shell = child_of(copy);
    ASSERT_TRUE(has_name(shell, "sh"));
    ASSERT_TRUE(has_name(child_of(shell), "sleep"));
    EXPECT_TRUE(launch_probe::is_findable(copy));
  });
}

TEST(launch_probe, a_shell_that_has_become_the_program_is_the_program) {
  in_child([] {
    const std::string name = unique_name('d');
    const pid_t copy = start([&] { start([&] { ::prctl(PR_SET_NAME, name.c_str()); }); });
    ASSERT_TRUE(has_name(child_of(copy), name));
    EXPECT_TRUE(launch_probe::is_findable(copy));
  });
}

TEST(launch_probe, tells_when_a_real_launch_has_got_there) {
  in_child([] {
    const std::string name = unique_name('w');
    const std::string path = write_program(name, "sleep 60\n");
    const pid_t copy = start([&] {
      if (std::system(path.c_str()) != 0) ::_exit(1);
    });
    ASSERT_TRUE(wait_until([&] { return launch_probe::is_findable(copy); }));
    // The shell runs the program in a child or becomes it.
    const pid_t child = child_of(copy);
    EXPECT_TRUE(
        wait_until([&] { return name_of(child) == name || name_of(child_of(child)) == name; }));
  });
}

}  // namespace
