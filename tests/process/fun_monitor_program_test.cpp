#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "process/fun_monitor.h"
#include "tests/process/supervision.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/wait_until.h"

// Monitors with real programs, under the signal handling of the daemon.

namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

TEST(fun_monitor_with_a_program, in_the_daemon_its_end_is_logged_as_a_failed_wait) {
  in_child([] {
    const supervision& world = supervision::begin();
    const std::string name = unique_name();
    // Runs twice, then waits for its end.
    const std::string path = write_program(name,
                                           "if test -e first; then sleep 60; fi\n"
                                           "echo $PPID > first\n");
    Tfun_monitor& monitor = new_monitor(path, name);
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return count(world.log(), "launched") == 2; }));
    const std::string log = world.log();
    const std::string first = log.substr(0, log.find("exited"));
    EXPECT_EQ(log, first + exited("4294967295", 10) + launched(monitor.last_pid()));
    EXPECT_EQ(world.printed(), golden::kWaitReturned);
    EXPECT_TRUE(exists("notify/" + name + ".dat"));
  });
}

TEST(fun_monitor_with_a_program, its_pid_is_logged_when_children_are_not_reaped_by_the_kernel) {
  in_child([] {
    const supervision& world = supervision::begin();
    ::signal(SIGCHLD, SIG_DFL);
    const std::string name = unique_name();
    Tfun_monitor& monitor = new_monitor(write_program(name, "exit 3\n"), name);
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return count(world.log(), "exited") > 0; }));
    const std::string log = world.log();
    const std::size_t at = log.find(": ") + 2;
    const std::string pid = log.substr(at, log.find(' ', at) - at);
    const std::string start = "launched sub process PID: " + pid +
                              " \r\n<time>\r\nexited process PID: " + pid + "  errno: ";
    EXPECT_EQ(log.substr(0, start.size()), start);
  });
}

/// Waits until the program has written its own number to the file "pid".
pid_t pid_of_program() {
  std::string text;
  wait_until([&] {
    text = read_file("pid");
    return !text.empty() && text.back() == '\n';
  });
  return text.empty() ? 0 : std::stoi(text);
}

constexpr char kSleeper[] = "echo $$ > pid.new; mv pid.new pid; sleep 60\n";

TEST(fun_monitor_with_a_program, stop_process_ends_it_by_name_and_the_monitor_then_idles) {
  in_child([] {
    const supervision& world = supervision::begin();
    const std::string name = unique_name();
    Tfun_monitor& monitor = new_monitor(write_program(name, kSleeper), name);
    monitor.Start();
    const pid_t program = pid_of_program();
    ASSERT_GT(program, 0);
    EXPECT_NE(program, monitor.last_pid()) << "the child runs it through a shell";
    monitor.update_state("stop");
    monitor.stop_process();
    ASSERT_TRUE(wait_until([&] { return Tfun_monitor::programs_alive() == 0; }));
    EXPECT_EQ(::kill(program, 0), -1);
    EXPECT_TRUE(wait_until([&] { return count(world.printed(), golden::kWaitReturned) == 1; }));
    EXPECT_TRUE(never([&] { return count(world.log(), "launched") > 1; }));
    // With SIGCHLD ignored the command's status is never known.
    EXPECT_EQ(count(world.printed(), "kill -USR2 result: kill -USR2 `pgrep " + name + "`, -1 \r\n"),
              1U);
  });
}

TEST(fun_monitor_with_a_program, it_runs_again_within_about_a_second_of_run) {
  in_child([] {
    const supervision& world = supervision::begin();
    static std::atomic<int> idle_seconds{0};
    static std::atomic<steady::rep> last_began{0};
    faults.select = [](int, fd_set*, fd_set*, fd_set*, timeval* limit) {
      last_began = steady::now().time_since_epoch().count();
      ++idle_seconds;
      return real::select(0, nullptr, nullptr, nullptr, limit);
    };
    const std::string name = unique_name();
    Tfun_monitor& monitor = new_monitor(write_program(name, kSleeper), name, "stop");
    monitor.Start();
    ASSERT_TRUE(wait_until([] { return idle_seconds > 0; }));
    monitor.update_state("run");
    const int before = idle_seconds;
    ASSERT_TRUE(wait_until([&] { return count(world.log(), "launched") == 1; }));
    EXPECT_LE(idle_seconds, before + 1);
    const steady::time_point began{steady::duration(last_began)};
    EXPECT_GE(steady::now() - began, milliseconds(900)) << "it sleeps its second to the end";
  });
}

TEST(fun_monitor_with_a_program, a_stop_right_after_the_start_is_not_lost) {
  in_child([] {
    const supervision& world = supervision::begin();
    const std::string name = unique_name();
    const std::string path = write_program(name, "sleep 60\n");
    for (int round = 0; round < 8; ++round) {
      Tfun_monitor& monitor = new_monitor(path, name);
      monitor.Start();
      std::this_thread::sleep_for(std::chrono::microseconds(150 * round));
      monitor.update_state("stop");
      monitor.stop_process();
      ASSERT_TRUE(wait_until([&] {
        const std::string log = world.log();
        return count(log, "launched") == count(log, "exited") &&
               Tfun_monitor::programs_alive() == 0;
      })) << round;
    }
  });
}

/// Does something when a stop looks for the first time whether the program is there yet: between
/// two looks it sleeps for less than a second, which monitors do not.
void at_a_look(const std::function<void()>& action) {
  faults.select = [=](int, fd_set*, fd_set*, fd_set*, timeval* limit) {
    static bool looked = false;
    if (limit->tv_sec == 0 && !std::exchange(looked, true)) action();
    return real::select(0, nullptr, nullptr, nullptr, limit);
  };
}

TEST(fun_monitor_with_a_program, a_stop_waits_for_a_program_that_is_not_there_yet) {
  in_child([] {
    const supervision& world = supervision::begin();
    const std::string name = unique_name();
    const std::string path = write_program(name, "sleep 60\n");
    // The child does not run the program before somebody waits for it.
    faults.execv = [&](const char* shell, char* const* arguments) {
      if (arguments[2] == path) wait_until([] { return ::access("awaited", F_OK) == 0; });
      return real::execv(shell, arguments);
    };
    at_a_look([] { write_file("awaited", ""); });
    Tfun_monitor& monitor = new_monitor(path, name);
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return monitor.last_pid() != 0; }));
    monitor.update_state("stop");
    monitor.stop_process();
    EXPECT_TRUE(wait_until([&] { return count(world.log(), "exited") == 1; }));
  });
}

TEST(fun_monitor_with_a_program, a_stop_waits_for_a_fork_that_has_been_decided_on) {
  in_child([] {
    const supervision& world = supervision::begin();
    const std::string name = unique_name();
    static std::atomic<bool> forking{false};
    static std::atomic<bool> awaited{false};
    faults.fork = [] {
      if (!forking.exchange(true)) wait_until([] { return awaited.load(); });
      return real::fork_bare();
    };
    at_a_look([] { awaited = true; });
    Tfun_monitor& monitor = new_monitor(write_program(name, "sleep 60\n"), name);
    monitor.Start();
    ASSERT_TRUE(wait_until([] { return forking.load(); }));
    monitor.update_state("stop");
    monitor.stop_process();
    EXPECT_TRUE(wait_until([&] { return count(world.log(), "exited") == 1; }));
  });
}

TEST(fun_monitor_with_a_program, a_stop_waits_no_longer_than_half_a_second) {
  in_child([] {
    const supervision& world = supervision::begin();
    // The program never gets its name.
    faults.execv = [](const char*, char* const*) -> int {
      for (;;)
        ::pause();
    };
    Tfun_monitor& monitor = new_monitor("/a/b", unique_name());
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return monitor.last_pid() != 0; }));
    faults.pipe2 = without_pipes;  // no stop command is run
    const auto start = steady::now();
    monitor.stop_process();
    EXPECT_GE(steady::now() - start, milliseconds(400));
    EXPECT_LT(steady::now() - start, milliseconds(5000));
    EXPECT_EQ(count(world.printed(), "kill -USR2 result: "), 1U);
  });
}

TEST(fun_monitor_with_a_program, a_stopped_child_counts_as_ended_and_remains) {
  in_child([] {
    const supervision& world = supervision::begin();
    const std::string name = unique_name();
    Tfun_monitor& monitor = new_monitor(write_program(name, kSleeper), name);
    monitor.Start();
    ASSERT_GT(pid_of_program(), 0);
    // The program may be faster than its monitor.
    ASSERT_TRUE(wait_until([&] { return monitor.last_pid() != 0; }));
    const pid_t first = monitor.last_pid();
    ASSERT_EQ(::kill(first, SIGSTOP), 0);
    ASSERT_TRUE(wait_until([&] { return count(world.log(), "launched") == 2; }));
    EXPECT_EQ(count(world.log(), "exited process PID: " + std::to_string(first) + "  errno: "), 1U);
    EXPECT_NE(monitor.last_pid(), first);
    EXPECT_EQ(::kill(first, 0), 0) << "it is still there";
  });
}

TEST(fun_monitor_with_a_program, a_command_with_blanks_is_split_by_the_shell) {
  in_child([] {
    supervision::begin();
    const std::string name = unique_name();
    const std::string path =
        write_program(name, "echo \"$#:$1:$2\" > args.new; mv args.new args; sleep 60\n");
    Tfun_monitor& monitor = new_monitor(path + "  one 'two three'", name);
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return exists("args"); }));
    EXPECT_EQ(read_file("args"), "2:one:two three\n");
  });
}

TEST(fun_monitor_with_a_program, a_command_of_1023_bytes_is_run_whole) {
  in_child([] {
    supervision::begin();
    std::string command = ": > whole; sleep 60 # ";
    command.resize(1022, '/');
    command += '\n';
    Tfun_monitor& monitor = new_monitor(command, unique_name());
    monitor.Start();
    EXPECT_TRUE(wait_until([] { return exists("whole"); }));
  });
}

}  // namespace
