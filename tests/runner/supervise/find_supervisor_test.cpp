#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "common/misc/unique_fd.h"
#include "runner/supervise/supervisor_chain.h"
#include "tests/support/channel.h"
#include "tests/support/in_child.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

using runner::find_supervisor;
using runner::supervisor_chain;

namespace {

/// Runs a part of a test in a process below this one, which works elsewhere. @return its exit
/// status.
int below(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    fs::current_path("/");
    ::_exit(body());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// The number of links, behind a directory that has to be this one; negative for anything else.
int links_below(const fs::path& directory) {
  const supervisor_chain chain = find_supervisor();
  if (chain.broken) return 100;
  return chain.directory == directory ? static_cast<int>(chain.links.size()) : 101;
}

/// Holds run.pid open in the working directory, as a supervisor does.
unique_fd hold_run_pid() {
  return unique_fd(::open("run.pid", O_RDWR | O_CREAT | O_CLOEXEC, 0644));
}

}  // namespace

TEST(find_supervisor, leads_to_the_ancestor_that_holds_run_pid) {
  in_child([] {
    const fs::path here = fs::current_path();
    const unique_fd pid_file = hold_run_pid();
    EXPECT_EQ(below([&] { return links_below(here); }), 0);
    EXPECT_EQ(below([&] { return below([&] { return links_below(here); }); }), 1);
    EXPECT_EQ(
        below([&] { return below([&] { return below([&] { return links_below(here); }); }); }), 2);
  });
}

TEST(find_supervisor, leads_to_the_nearest_of_two) {
  in_child([] {
    const fs::path here = fs::current_path();
    const unique_fd outer = hold_run_pid();
    fs::create_directory("inner");
    EXPECT_EQ(below([&] {
                fs::current_path(here / "inner");
                const unique_fd inner = hold_run_pid();
                return below([&] { return below([&] { return links_below(here / "inner"); }); });
              }),
              1);
  });
}

TEST(find_supervisor, does_not_take_a_file_for_one_that_nobody_holds) {
  in_child([] {
    const fs::path here = fs::current_path();
    hold_run_pid().reset();
    EXPECT_TRUE(fs::exists("run.pid"));
    EXPECT_EQ(below([&] { return links_below(here); }), 101);
    EXPECT_EQ(below([&] { return links_below(""); }), 0);
  });
}

TEST(find_supervisor, is_broken_where_a_supervisor_of_this_session_is_no_ancestor_any_more) {
  in_child([] {
    const channel told = make_pipe();
    const pid_t supervisor = ::fork();
    if (supervisor == 0) {
      // Known by its second thread, and by what it holds.
      const unique_fd pid_file = hold_run_pid();
      std::thread second([] {
        for (;;)
          ::pause();
      });
      if (::write(told.writer.get(), "x", 1) != 1) ::_exit(1);
      second.join();
    }
    ASSERT_TRUE(wait_until([&] { return read_all(told) == "x"; }));
    EXPECT_EQ(below([] { return find_supervisor().broken ? 1 : 0; }), 1);
    // Not for those of another session.
    EXPECT_EQ(below([] {
                ::setsid();
                return find_supervisor().broken ? 1 : 0;
              }),
              0);
    ::kill(supervisor, SIGKILL);
    ::waitpid(supervisor, nullptr, 0);
    EXPECT_EQ(below([] { return find_supervisor().broken ? 1 : 0; }), 0);
  });
}
