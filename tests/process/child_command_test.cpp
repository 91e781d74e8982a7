#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <string>

#include "process/child.h"
#include "process/supervisor_signals.h"
#include "tests/process/child_status.h"
#include "tests/process/supervision.h"
#include "tests/support/captured_output.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/wait_until.h"

namespace {

bool never_in_a_hurry() {
  return false;
}

child::command_end run_to_its_end(const std::string& command) {
  child::start();
  return child::run_command(command.c_str(), std::chrono::minutes(1), never_in_a_hurry);
}

TEST(run_command, returns_what_system_would_have_returned) {
  in_child([] {
    EXPECT_EQ(run_to_its_end("true").result, 0);
    const int result = run_to_its_end("exit 3").result;
    EXPECT_TRUE(WIFEXITED(result));
    EXPECT_EQ(WEXITSTATUS(result), 3);
    EXPECT_EQ(WTERMSIG(run_to_its_end("kill -TERM $$").result), SIGTERM);
  });
}

TEST(run_command, waits_for_the_command) {
  in_child([] {
    EXPECT_EQ(run_to_its_end("sleep 0.02; echo > done").what, child::outcome::ended);
    EXPECT_TRUE(exists("done"));
  });
}

TEST(run_command, runs_where_the_supervisor_is) {
  in_child([] {
    run_to_its_end("pwd > where; /bin/true");
    EXPECT_EQ(read_file("where"), std::filesystem::current_path().string() + "\n");
  });
}

TEST(run_command,
     has_a_result_of_minus_1_where_the_kernel_reaps_and_knows_the_status_all_the_same) {
  in_child([] {
    ::signal(SIGCHLD, SIG_IGN);
    const child::command_end end = run_to_its_end("sleep 0.02; echo > done; exit 3");
    EXPECT_EQ(end.what, child::outcome::ended);
    EXPECT_EQ(end.result, -1);
    EXPECT_EQ(WEXITSTATUS(end.status), 3);
    EXPECT_TRUE(exists("done"));
  });
}

void expect_not_started(const child::command_end& end) {
  EXPECT_EQ(end.what, child::outcome::not_started);
  EXPECT_EQ(end.result, -1);
  EXPECT_EQ(end.status, -1);
}

TEST(run_command, is_not_started_without_a_process) {
  in_child([] {
    faults.fork = [] {
      errno = EAGAIN;
      return -1;
    };
    expect_not_started(run_to_its_end("echo > done"));
    faults.fork = nullptr;
    faults.pipe2 = without_pipes;
    expect_not_started(run_to_its_end("echo > done"));
    EXPECT_FALSE(exists("done"));
  });
}

TEST(run_command, is_not_started_when_the_child_has_no_process_for_the_shell) {
  in_child([] {
    faults.fork = [] {
      const pid_t child = real::fork_bare();
      if (child == 0) faults.fork = faults.clone = [] { return -1; };
      return child;
    };
    expect_not_started(run_to_its_end("echo > done"));
    EXPECT_FALSE(exists("done"));
  });
}

TEST(run_command, is_not_started_when_the_child_is_killed) {
  in_child([] {
    faults.fork = [] {
      const pid_t child = real::fork_bare();
      if (child == 0) ::raise(SIGKILL);
      return child;
    };
    expect_not_started(run_to_its_end("true"));
  });
}

TEST(run_command, goes_on_waiting_when_a_signal_interrupts_it) {
  in_child([] {
    int interruptions = 0;
    faults.waitpid = [&](pid_t pid, int* status, int options) {
      if (++interruptions < 3) {
        errno = EINTR;
        return -1;
      }
      return real::waitpid(pid, status, options);
    };
    EXPECT_EQ(run_to_its_end("sleep 0.01").result, 0);
    EXPECT_EQ(interruptions, 3);
  });
}

TEST(run_command, kills_a_command_that_takes_too_long_with_all_that_it_has_started) {
  in_child([] {
    child::start();
    // However little time it is given, it gets that far.
    faults.poll = [](pollfd* requests, nfds_t count, int milliseconds) {
      wait_until([] { return read_file("shell").ends_with('\n'); });
      return real::poll(requests, count, milliseconds);
    };
    const child::command_end end = child::run_command(
        "sleep 60 & echo $! > below; setsid sleep 60 & echo $! > apart; "
        "echo $$ > shell; wait",
        std::chrono::milliseconds(300), never_in_a_hurry);
    EXPECT_EQ(end.what, child::outcome::given_up);
    EXPECT_EQ(end.result, -1);
    for (const char* file : {"below", "apart", "shell"}) {
      const pid_t pid = std::stoi(read_file(file));
      // This process adopts orphans and does not wait for them.
      EXPECT_TRUE(wait_until([&] { return state_of(pid) == 'Z' || state_of(pid) == '?'; })) << file;
    }
  });
}

TEST(run_command, is_over_at_once_when_there_is_a_hurry) {
  in_child([] {
    child::start();
    static int asked = 0;
    const auto start = std::chrono::steady_clock::now();
    const child::command_end end =
        child::run_command("sleep 60", std::chrono::minutes(1), [] { return ++asked == 2; });
    EXPECT_EQ(end.what, child::outcome::given_up);
    EXPECT_EQ(asked, 2);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  });
}

TEST(run_command, is_not_begun_when_there_is_a_hurry_already) {
  in_child([] {
    child::start();
    expect_not_started(
        child::run_command("echo > done", std::chrono::minutes(1), [] { return true; }));
    EXPECT_FALSE(exists("done"));
  });
}

TEST(run_command, leads_a_group_before_its_first_step) {
  in_child([] {
    faults.fork = [] {
      const pid_t child = real::fork_bare();
      if (child == 0 && wait_until([] { return ::getpgrp() == ::getpid(); })) write_file("led", "");
      return child;
    };
    EXPECT_EQ(run_to_its_end("true").result, 0);
    EXPECT_TRUE(exists("led"));
  });
}

TEST(run_command, is_killed_when_it_is_stopped_for_too_long) {
  in_child([] {
    child::start();
    const child::command_end end = child::run_command(
        "kill -STOP $PPID; exit 0", std::chrono::milliseconds(200), never_in_a_hurry);
    EXPECT_EQ(end.what, child::outcome::given_up);
  });
}

TEST(run_command, never_runs_anything_in_the_supervisor_itself) {
  in_child([] {
    const pid_t supervisor = ::getpid();
    faults.execv = [=](const char*, char* const*) -> int {
      ::_exit(::getppid() == supervisor || ::getpid() == supervisor ? 1 : 2);
    };
    EXPECT_EQ(WEXITSTATUS(run_to_its_end("true").result), 2);
  });
}

TEST(run_command, gives_the_command_descriptors_0_1_and_2_only) {
  in_child([] {
    ASSERT_EQ(::dup2(1, 40), 40);
    run_to_its_end("ls /proc/self/fd > fds");
    EXPECT_EQ(read_file("fds"), "0\n1\n2\n3\n");
  });
}

TEST(run_command, keeps_the_supervisor_s_signals_blocked_in_the_command) {
  in_child([] {
    supervisor_signals::block();
    note_status_instead_of_a_shell();
    run_to_its_end("true");
    const std::uint64_t blocked = signals_in(read_file("status"), "SigBlk");
    for (const int sig : {SIGINT, SIGUSR1, SIGUSR2})
      EXPECT_TRUE(blocked & bit(sig)) << sig;
  });
}

TEST(run_command, leaves_the_supervisor_s_handlers_and_mask_alone) {
  in_child([] {
    supervisor_signals::block();
    const auto handler = [](int) {};
    ::signal(SIGUSR2, handler);
    run_to_its_end("true");
    EXPECT_EQ(::signal(SIGUSR2, SIG_IGN), static_cast<sighandler_t>(handler));
    EXPECT_EQ(::signal(SIGINT, SIG_IGN), SIG_DFL);
    EXPECT_EQ(::signal(SIGQUIT, SIG_IGN), SIG_DFL);
    EXPECT_EQ(::signal(SIGCHLD, SIG_IGN), SIG_DFL);
  });
}

}  // namespace
