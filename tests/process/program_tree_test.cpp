#include "process/program_tree.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <sstream>
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
bool wait_named(pid_t pid, const std::string& name) {
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

TEST(program_tree, a_child_that_is_gone_is_not_waited_for) {
  in_child([] {
    const pid_t gone = ::fork();
    if (gone == 0) ::_exit(0);
    ASSERT_EQ(::waitpid(gone, nullptr, 0), gone);
    EXPECT_TRUE(program_tree::has_its_name(gone));
    EXPECT_TRUE(program_tree::has_its_name(0));
    EXPECT_TRUE(program_tree::has_its_name(-1));
  });
}

TEST(program_tree, a_child_without_a_child_of_its_own_has_not_started_its_program) {
  in_child([] {
    const pid_t child = start([] {});
    EXPECT_FALSE(program_tree::has_its_name(child));
  });
}

TEST(program_tree, a_process_that_is_not_the_shell_yet_is_not_the_program) {
  in_child([] {
    const pid_t child = start([] { start([] {}); });
    ASSERT_GT(child_of(child), 0);
    EXPECT_FALSE(program_tree::has_its_name(child));
  });
}

TEST(program_tree, a_shell_without_a_child_is_not_the_program) {
  in_child([] {
    // A shell that waits for its input, which never comes.
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t child = start([&] {
      start([&] {
        ::dup2(ends[0], 0);
        ::execl("/bin/sh", "sh", nullptr);
      });
    });
    ASSERT_TRUE(wait_named(child_of(child), "sh"));
    EXPECT_FALSE(program_tree::has_its_name(child));
  });
}

TEST(program_tree, a_child_of_the_shell_is_the_program) {
  in_child([] {
    const pid_t child = start([] { start([] { run("/bin/sh", "sh", "-c"); }); });
    const pid_t shell = child_of(child);
    ASSERT_TRUE(wait_named(shell, "sh"));
    ASSERT_TRUE(wait_named(child_of(shell), "sleep"));
    EXPECT_TRUE(program_tree::has_its_name(child));
  });
}

TEST(program_tree, a_shell_that_has_become_the_program_is_the_program) {
  in_child([] {
    const std::string name = unique_name();
    const pid_t child = start([&] { start([&] { ::prctl(PR_SET_NAME, name.c_str()); }); });
    ASSERT_TRUE(wait_named(child_of(child), name));
    EXPECT_TRUE(program_tree::has_its_name(child));
  });
}

TEST(program_tree, tells_when_a_real_launch_has_got_there) {
  in_child([] {
    const std::string name = unique_name();
    const std::string path = write_program(name, "sleep 60\n");
    const pid_t child = start([&] {
      if (std::system(path.c_str()) != 0) ::_exit(1);
    });
    ASSERT_TRUE(wait_until([&] { return program_tree::has_its_name(child); }));
    // The shell runs the program in a child or becomes it.
    const pid_t below = child_of(child);
    EXPECT_TRUE(
        wait_until([&] { return name_of(below) == name || name_of(child_of(below)) == name; }));
  });
}

TEST(program_tree, the_signal_goes_to_every_descendant_of_that_name_and_to_no_other) {
  in_child([] {
    const std::string name = unique_name();
    const auto named = [&](const std::string& own, const std::function<void()>& then) {
      return start([=] {
        ::prctl(PR_SET_NAME, own.c_str());
        then();
      });
    };
    const pid_t elsewhere = named(name, [] {});
    // child, shell, program, its helper of another name, and below that one of the program's again
    const pid_t child = start([&] {
      named("sh", [&] {
        named(name + "x", [&] { named("helper", [&] { named(name, [] {}); }); });
        named(name, [] {});
      });
    });
    const pid_t shell = child_of(child);
    ASSERT_TRUE(wait_until([&] {
      const std::string number = std::to_string(shell);
      std::istringstream list(read_file("/proc/" + number + "/task/" + number + "/children"));
      pid_t first = 0;
      pid_t second = 0;
      return list >> first >> second && name_of(second) == name;
    }));
    const pid_t helper = child_of(child_of(shell));
    const pid_t deepest = child_of(helper);
    ASSERT_TRUE(wait_named(deepest, name));

    EXPECT_EQ(program_tree::signal_by_name(child, name.c_str(), SIGUSR2), 3);
    EXPECT_TRUE(wait_until([&] { return state_of(deepest) == 'Z' || state_of(deepest) == '?'; }));
    for (const pid_t spared : {elsewhere, child, shell, helper})
      EXPECT_TRUE(wait_until([&] { return state_of(spared) == 'S'; })) << name_of(spared);
  });
}

TEST(program_tree, a_name_that_is_no_pattern_is_nobody_s) {
  in_child([] {
    const pid_t child = start([] { start([] {}); });
    ASSERT_GT(child_of(child), 0);
    EXPECT_EQ(program_tree::signal_by_name(child, "(", SIGUSR2), 0);
    EXPECT_EQ(program_tree::signal_by_name(child, ".", 0), 1);
  });
}

}  // namespace
