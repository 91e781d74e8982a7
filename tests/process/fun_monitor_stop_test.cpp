#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "process/fun_monitor.h"
#include "tests/process/imagined_programs.h"
#include "tests/process/supervision.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/wait_until.h"

namespace {

TEST(fun_monitor_stop, runs_and_prints_the_command_and_touches_nothing_else) {
  in_child([] {
    const supervision& world = supervision::begin();
    Tfun_monitor monitor("/a/b", "name", "run");
    const std::string seen = std::filesystem::current_path() / "seen";
    ::signal(SIGCHLD, SIG_DFL);
    faults.execv = [&](const char* path, char* const* arguments) -> int {
      write_file(seen,
                 std::string(path) + "|" + arguments[0] + "|" + arguments[1] + "|" + arguments[2]);
      ::_exit(12);
    };
    monitor.stop_process();
    EXPECT_EQ(read_file(seen), "/bin/sh|sh|-c|kill -USR2 `pgrep name`");
    EXPECT_EQ(world.printed(), "kill -USR2 result: kill -USR2 `pgrep name`, 3072 \r\n");
    EXPECT_EQ(world.log(), "");
    EXPECT_EQ(monitor.last_pid(), 0);
    EXPECT_FALSE(monitor.IsRunning());
  });
}

TEST(fun_monitor_stop, does_not_change_the_state) {
  in_child([] {
    supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    Tfun_monitor& monitor = new_monitor("/a/b", "still");
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    faults.pipe2 = without_pipes;
    monitor.stop_process();
    programs.end_one();
    EXPECT_TRUE(wait_until([&] { return programs.is_waiting(2); }));
    EXPECT_EQ(programs.sleeps, 0);
  });
}

TEST(fun_monitor_stop, that_matches_nothing_shows_only_in_the_result) {
  in_child([] {
    const supervision& world = supervision::begin();
    ::signal(SIGCHLD, SIG_DFL);
    const std::string name = unique_name();
    Tfun_monitor("/a/b", name.c_str(), "run").stop_process();
    const std::string printed = world.printed();
    const std::string start = "kill -USR2 result: kill -USR2 `pgrep " + name + "`, ";
    ASSERT_EQ(printed.substr(0, start.size()), start);
    EXPECT_NE(std::stoi(printed.substr(start.size())), 0);
    EXPECT_EQ(printed.substr(printed.size() - 3), " \r\n");
    EXPECT_EQ(world.log(), "");
  });
}

TEST(fun_monitor_stop, whose_command_would_have_to_be_cut_is_not_run) {
  in_child([] {
    const supervision& world = supervision::begin();
    ::signal(SIGCHLD, SIG_DFL);
    faults.execv = [](const char*, char* const*) -> int { ::_exit(0); };
    const std::string longest(236, 'n');
    Tfun_monitor("/a/b", longest.c_str(), "run").stop_process();
    const std::string command = "kill -USR2 `pgrep " + longest + "`";
    EXPECT_EQ(command.size(), 255U);
    EXPECT_EQ(world.printed(), "kill -USR2 result: " + command + ", 0 \r\n");
    Tfun_monitor("/a/b", (longest + "m").c_str(), "run").stop_process();
    EXPECT_EQ(world.printed(), "kill -USR2 result: " + command + ", 0 \r\n");
  });
}

}  // namespace
