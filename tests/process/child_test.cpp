#include "process/child.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>

#include "process/supervisor_signals.h"
#include "tests/process/child_status.h"
#include "tests/process/supervision.h"
#include "tests/support/captured_output.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/wait_until.h"

namespace {

/// Runs a program in a child, as a monitor does.
pid_t start(const std::string& command) {
  child::start();
  return child::start_program(command.c_str());
}

/// The same, and waits for its end.
/// @return the status as `waitpid` tells it.
int run(const std::string& command) {
  int status = -1;
  ::waitpid(start(command), &status, 0);
  return status;
}

TEST(start_program, ends_the_child_with_status_0_whatever_becomes_of_the_command) {
  in_child([] {
    const captured_output errors(2);
    for (const char* command : {"true", "false", "exit 7", "/nowhere/program", "kill -KILL $$", ""})
      EXPECT_EQ(run(command), 0) << command;
  });
}

TEST(start_program, ends_the_child_with_status_0_when_there_is_no_process_for_the_shell) {
  in_child([] {
    faults.execv = [](const char*, char* const*) { return -1; };
    EXPECT_EQ(run("true"), 0);
    faults.execv = nullptr;
    // The child forks, and there is no process for its shell.
    faults.fork = [] {
      const pid_t child = real::fork_bare();
      if (child == 0) faults.fork = faults.clone = [] { return -1; };
      return child;
    };
    EXPECT_EQ(run("true"), 0);
  });
}

TEST(start_program, has_no_process_before_the_thread_that_forks_exists) {
  in_child([] {
    errno = 0;
    EXPECT_EQ(child::start_program("true"), -1);
    EXPECT_EQ(errno, EAGAIN);
  });
}

TEST(start_program, is_possible_when_the_thread_that_forks_could_not_be_created_at_first) {
  in_child([] {
    faults.pthread_create = [](auto...) { return EAGAIN; };
    EXPECT_FALSE(child::start());
    faults.pthread_create = nullptr;
    EXPECT_TRUE(child::start());
    EXPECT_EQ(run("true"), 0);
  });
}

TEST(start_program, refuses_a_command_of_1024_bytes) {
  in_child([] {
    child::start();
    errno = 0;
    EXPECT_EQ(child::start_program(std::string(1024, 'x').c_str()), -1);
    EXPECT_EQ(errno, E2BIG);
  });
}

TEST(start_program, is_refused_also_where_it_already_waits_for_its_fork) {
  in_child([] {
    child::start();
    static std::atomic<bool> forking{false};
    static std::atomic<bool> may_go_on{false};
    faults.fork = [] {
      forking = true;
      wait_until([] { return may_go_on.load(); });
      return real::fork_bare();
    };
    pid_t first = -1;
    pid_t second = -1;
    std::thread one([&] { first = child::start_program("true"); });
    ASSERT_TRUE(wait_until([] { return forking.load(); }));
    std::thread other([&] { second = child::start_program("echo > second"); });
    child::refuse_programs();
    may_go_on = true;
    one.join();
    other.join();
    EXPECT_GT(first, 0);
    EXPECT_EQ(second, 0);
    EXPECT_EQ(child::start_program("echo > third"), 0);
    // The thread that forks serves one after the other, so nothing comes later.
    const child::command_end end =
        child::run_command("true", std::chrono::minutes(1), [] { return false; });
    EXPECT_EQ(end.what, child::outcome::ended) << "commands are run";
    EXPECT_FALSE(exists("second") || exists("third"));
  });
}

TEST(start_program, hands_the_whole_text_to_the_shell_and_waits) {
  in_child([] {
    EXPECT_EQ(run("printf '%s|' one 'two three' > out; sleep 0.01; echo end >> out"), 0);
    EXPECT_EQ(read_file("out"), "one|two three|end\n");
  });
}

TEST(start_program, runs_the_command_in_the_directory_of_its_text) {
  in_child([] {
    const std::string start = std::filesystem::current_path();
    std::filesystem::create_directories("a b/c");
    const captured_output errors(2);
    run("'" + start + "/a b'; pwd > " + start + "/quoted");
    EXPECT_EQ(read_file("quoted"), start + "\n") << "the text is no path";

    std::filesystem::create_directory("sub");
    ASSERT_FALSE(write_program("sub/tool", "pwd > where\n").empty());
    run(start + "/sub/tool");
    EXPECT_EQ(read_file("sub/where"), start + "/sub\n");
  });
}

TEST(start_program, takes_the_directory_up_to_the_last_slash_of_the_text) {
  in_child([] {
    std::filesystem::create_directories("sub/deep");
    const captured_output errors(2);
    // The last "/" stands behind the program's name.
    run("sub/deep/../../sub/deep/x; pwd > here");
    EXPECT_EQ(read_file("sub/deep/here"), std::filesystem::current_path().string() + "/sub/deep\n");
  });
}

TEST(start_program, stays_where_it_is_when_there_is_no_directory_to_enter) {
  in_child([] {
    const std::string start = std::filesystem::current_path();
    const captured_output errors(2);
    run("pwd > plain");
    EXPECT_EQ(read_file("plain"), start + "\n");
    run("/true; pwd > root");
    EXPECT_EQ(read_file("root"), start + "\n") << "the root directory counts as none";
    run("pwd > missing; /nowhere/at/all");
    EXPECT_EQ(read_file("missing"), start + "\n");
  });
}

TEST(start_program, gives_the_program_descriptors_0_1_and_2_only) {
  in_child([] {
    // Without close-on-exec, at numbers that no shell uses.
    for (const int fd : {40, 41, 77})
      ASSERT_EQ(::dup2(1, fd), fd);
    run("ls /proc/self/fd > fds");
    // 3 is the listed directory itself.
    EXPECT_EQ(read_file("fds"), "0\n1\n2\n3\n");
  });
}

TEST(start_program, keeps_nothing_open_while_the_program_runs) {
  in_child([] {
    ASSERT_EQ(::dup2(1, 40), 40);
    const pid_t child = start("echo > started; sleep 60");
    ASSERT_TRUE(wait_until([] { return exists("started"); }));
    const std::string fds = "/proc/" + std::to_string(child) + "/fd";
    for (const auto& entry : std::filesystem::directory_iterator(fds))
      EXPECT_LE(std::stoi(entry.path().filename()), 2);
  });
}

TEST(start_program, gives_the_program_the_mask_that_the_supervisor_was_started_with) {
  in_child([] {
    sigset_t mask;
    ::sigemptyset(&mask);
    ::sigaddset(&mask, SIGUSR1);
    ::sigaddset(&mask, SIGTERM);
    ::sigprocmask(SIG_SETMASK, &mask, nullptr);
    supervisor_signals::block();
    note_status_instead_of_a_shell();
    run("true");
    EXPECT_EQ(signals_in(read_file("status"), "SigBlk"), bit(SIGUSR1) | bit(SIGTERM));
  });
}

TEST(start_program, hands_on_the_ignored_signals_and_no_others) {
  in_child([] {
    supervisor_signals::block();
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGCHLD, SIG_IGN);
    for (const int sig : {SIGINT, SIGUSR1, SIGUSR2})
      ::signal(sig, [](int) {});
    note_status_instead_of_a_shell();
    run("true");
    const std::string status = read_file("status");
    const std::uint64_t ignored = signals_in(status, "SigIgn");
    EXPECT_TRUE(ignored & bit(SIGPIPE)) << "nothing restores them";
    EXPECT_TRUE(ignored & bit(SIGCHLD));
    for (const int sig : {SIGINT, SIGQUIT, SIGUSR1, SIGUSR2})
      EXPECT_FALSE(ignored & bit(sig)) << sig;
    EXPECT_EQ(signals_in(status, "SigBlk"), 0U);
  });
}

TEST(start_program, the_child_leaves_the_terminal_s_signals_to_its_shell) {
  for (const auto at_start : {SIG_DFL, SIG_IGN}) {
    in_child([=] {
      ::signal(SIGQUIT, at_start);
      supervisor_signals::block();
      ::signal(SIGQUIT, at_start == SIG_DFL ? SIG_IGN : SIG_DFL);
      faults.execv = [](const char*, char* const*) {
        write_file("shell", read_file("/proc/self/status"));
        write_file("child", read_file("/proc/" + std::to_string(::getppid()) + "/status"));
        return -1;
      };
      run("true");
      EXPECT_TRUE(signals_in(read_file("child"), "SigIgn") & bit(SIGQUIT));
      EXPECT_TRUE(signals_in(read_file("child"), "SigIgn") & bit(SIGINT));
      EXPECT_TRUE(signals_in(read_file("child"), "SigBlk") & bit(SIGCHLD));
      EXPECT_FALSE(signals_in(read_file("shell"), "SigIgn") & bit(SIGINT));
      EXPECT_FALSE(signals_in(read_file("shell"), "SigBlk") & bit(SIGCHLD));
      EXPECT_EQ((signals_in(read_file("shell"), "SigIgn") & bit(SIGQUIT)) != 0,
                at_start == SIG_IGN);
    });
  }
}

TEST(start_program, a_program_behind_the_shell_does_not_die_of_a_broken_pipe) {
  in_child([] {
    supervisor_signals::block();
    ::signal(SIGPIPE, SIG_IGN);
    run("cat /proc/self/status > status");
    EXPECT_TRUE(signals_in(read_file("status"), "SigIgn") & bit(SIGPIPE));
  });
}

TEST(start_program, the_child_outlives_the_supervisor_s_signals) {
  in_child([] {
    supervisor_signals::block();
    const pid_t child = start("echo > started; while test ! -e end; do sleep 0.01; done");
    ASSERT_TRUE(wait_until([] { return exists("started"); }));
    for (const int sig : {SIGINT, SIGUSR1, SIGUSR2, SIGUSR2})
      ASSERT_EQ(::kill(child, sig), 0);
    write_file("end", "");
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  });
}

TEST(start_program, a_handler_of_the_supervisor_does_not_run_in_the_child) {
  in_child([] {
    // The signals get through, as they do from the child's start mask on.
    static const std::string seen = std::filesystem::current_path() / "seen";
    supervisor_signals::block();
    ::signal(SIGUSR2, [](int) { write_file(seen, "handled"); });
    ::raise(SIGUSR2);  // pending here; a child begins with none
    faults.fork = [] {
      const pid_t child = real::fork_bare();
      if (child == 0) ::raise(SIGUSR2);
      return child;
    };
    EXPECT_EQ(run("true"), 0);
    EXPECT_FALSE(exists("seen"));
    ::signal(SIGUSR2, SIG_IGN);
  });
}

TEST(start_program, a_command_of_1023_bytes_is_safe) {
  in_child([] {
    std::string command = "sub/; echo > whole #";
    std::filesystem::create_directory("sub");
    command.resize(1022, 'x');
    const captured_output errors(2);
    EXPECT_EQ(run(command + "/"), 0);
    EXPECT_TRUE(exists("whole")) << "no directory of that name";
    EXPECT_EQ(run(std::string(1022, '/') + "x"), 0);
  });
}

TEST(the_thread_that_forks, is_the_only_one) {
  const child_end end = run_in_child([] {
    const captured_output errors(2);
    run("true");
    // Whoever else forks ends the tests.
    child_path::fork_bare();
  });
  EXPECT_FALSE(end.returned);
  EXPECT_EQ(WTERMSIG(end.status), SIGABRT);
}

}  // namespace
