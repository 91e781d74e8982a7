#include "runner/supervise/supervisor_chain.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <thread>

#include "common/misc/unique_fd.h"
#include "runner/file/process_stat.h"
#include "tests/runner/supervise/launcher_place.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/wait_until.h"

using runner::program_phase;
using runner::read_process_stat;

namespace {

/// Makes this process look like a supervisor in its directory. @return what it holds open.
unique_fd hold_run_pid() {
  write_file("run.pid", "");
  return unique_fd(::open("run.pid", O_RDONLY | O_CLOEXEC));
}

/// Runs a launcher below a child of this process, which is killed when the program runs.
void expect_the_launcher_to_end_with_what_is_above_it(const std::function<void()>& prepare = {}) {
  const unique_fd held = hold_run_pid();
  launcher_place place;
  place.write("command = sleep 1000\n");
  const pid_t above = ::fork();
  if (above == 0) {
    // Or it would look like one itself.
    ::close(held.get());
    place.start([&] {
      // Ends by itself, or not at all.
      ::prctl(PR_SET_PDEATHSIG, 0);
      if (prepare) prepare();
    });
    for (;;)
      ::pause();
  }
  const runner::program_state state = place.wait_phase(program_phase::running);
  EXPECT_TRUE(read_process_stat(state.launcher));
  ::kill(above, SIGKILL);
  ::waitpid(above, nullptr, 0);
  const std::chrono::seconds limit(30);
  EXPECT_TRUE(wait_until([&] { return !read_process_stat(state.launcher); }, limit));
  EXPECT_FALSE(read_process_stat(state.pid));
}

}  // namespace

TEST(supervisor_chain, a_launcher_ends_when_what_is_above_it_does) {
  in_child([] { expect_the_launcher_to_end_with_what_is_above_it(); });
}

TEST(supervisor_chain, a_launcher_ends_with_it_also_where_there_are_no_handles) {
  in_child([] { expect_the_launcher_to_end_with_what_is_above_it(have_no_process_handles); });
}

TEST(supervisor_chain, a_launcher_says_so_that_ends_because_another_one_is_started) {
  in_child([] {
    const unique_fd held = hold_run_pid();
    // Whoever looks for a supervisor that he has lost looks for one with threads.
    std::thread thread([] { ::pause(); });
    thread.detach();
    launcher_place place;
    place.write("command = touch started\n");
    // The launcher's next parent is none of those here.
    ::prctl(PR_SET_CHILD_SUBREAPER, 0);
    // Has its parent killed before it looks who that is.
    const pid_t above = real::fork();
    if (above == 0) {
      place.start([] {
        ::prctl(PR_SET_PDEATHSIG, 0);
        const pid_t parent = ::getppid();
        ::kill(parent, SIGKILL);
        wait_until([&] { return ::getppid() != parent; });
      });
      for (;;)
        ::pause();
    }
    real::waitpid(above, nullptr, 0);
    EXPECT_TRUE(wait_until([&] { return !place.errors().empty(); }));
    EXPECT_EQ(place.errors(), "keelmond-run: " + place.name() +
                                  ": what had started it has ended, and another one is started\n");
    EXPECT_FALSE(place.directory().has("started"));
  });
}
