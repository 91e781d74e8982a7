#include "runner/supervise/leftovers.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "runner/supervise/mark.h"
#include "tests/support/in_child.h"
#include "tests/support/wait_until.h"

using runner::leftovers;
using runner::program_state;
using runner::read_mark;
using runner::read_process_stat;

namespace {

/// A process that stays, in a session of its own, with one variable.
pid_t start(const std::string& variable) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setsid();
    const char* const words[] = {"sleep", "1000", nullptr};
    const char* const variables[] = {variable.c_str(), nullptr};
    ::execve("/bin/sleep", const_cast<char* const*>(words), const_cast<char* const*>(variables));
    ::_exit(127);
  }
  const std::string name = variable.substr(0, variable.find('='));
  wait_until([&] {
    const bool has_mark = !read_mark(pid).empty();
    return ::getsid(pid) == pid && has_mark == (name == runner::kMarkVariable);
  });
  return pid;
}

/// The state of a launcher that had this mark and no program.
program_state state_of(const std::string& mark) {
  program_state state;
  state.mark = mark;
  return state;
}

bool is_killed(pid_t pid) {
  int status = 0;
  return wait_until([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }) &&
         WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

std::string marked(const std::string& mark) {
  return std::string(runner::kMarkVariable) + "=" + mark;
}

void end(pid_t pid) {
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

}  // namespace

TEST(mark, is_different_each_time_and_of_this_boot) {
  const std::string mark = runner::make_mark();
  EXPECT_NE(mark, runner::make_mark());
  EXPECT_TRUE(runner::is_of_this_boot(mark));
  std::string older = mark;
  older.front() = older.front() == 'f' ? '0' : 'f';
  EXPECT_FALSE(runner::is_of_this_boot(older));
}

TEST(leftovers, are_those_with_the_mark_and_nobody_else) {
  in_child([] {
    const std::string mark = runner::make_mark();
    const pid_t left = start(marked(mark));
    const pid_t other = start(marked(runner::make_mark()));
    const pid_t none = start("OTHER=" + mark);
    const leftovers all(state_of(mark));
    EXPECT_TRUE(all.kill());
    EXPECT_TRUE(is_killed(left));
    EXPECT_FALSE(all.kill());
    EXPECT_TRUE(read_process_stat(other));
    EXPECT_TRUE(read_process_stat(none));
    end(other);
    end(none);
  });
}

TEST(leftovers, of_an_earlier_boot_are_nobody) {
  in_child([] {
    std::string mark = runner::make_mark();
    mark.front() = mark.front() == 'f' ? '0' : 'f';
    const pid_t stranger = start(marked(mark));
    program_state state = state_of(mark);
    state.pid = stranger;
    state.started = read_process_stat(stranger)->started;
    EXPECT_FALSE(leftovers(state).kill());
    EXPECT_TRUE(read_process_stat(stranger));
    end(stranger);
  });
}

TEST(leftovers, are_those_of_the_programs_session_unless_another_one_has_its_number) {
  in_child([] {
    const std::string mark = runner::make_mark();
    const pid_t program = start("OTHER=1");
    program_state state = state_of(mark);
    state.pid = program;
    state.started = read_process_stat(program)->started + 1;
    EXPECT_FALSE(leftovers(state).kill());
    --state.started;
    EXPECT_TRUE(leftovers(state).kill());
    EXPECT_TRUE(is_killed(program));
  });
}

TEST(leftovers, this_process_and_those_above_it_are_none) {
  in_child([] {
    const pid_t leader = ::fork();
    if (leader == 0) {
      if (::setsid() != ::getpid()) ::_exit(2);
      program_state state = state_of(runner::make_mark());
      state.pid = ::getpid();
      state.started = read_process_stat(state.pid)->started;
      const pid_t below = ::fork();
      if (below == 0) ::_exit(leftovers(state).kill() ? 1 : 0);
      int status = 0;
      ::waitpid(below, &status, 0);
      ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 3);
    }
    int status = 0;
    ::waitpid(leader, &status, 0);
    EXPECT_EQ(status, 0);
  });
}
