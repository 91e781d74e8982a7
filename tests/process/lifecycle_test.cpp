#include "process/lifecycle.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "common/daemon/sys_daemon.h"
#include "common/log/log_file.h"
#include "common/misc/fun_misc.h"
#include "process/child.h"
#include "process/config_watcher.h"
#include "process/server_config.h"
#include "process/shutdown_gate.h"
#include "process/supervisor_signals.h"
#include "tests/process/supervision.h"
#include "tests/support/captured_output.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/server_ini.h"
#include "tests/support/text.h"

namespace {

/// What `main` creates, and two monitors whose programs do not run. No stop command is run either.
const supervision& begin_with_two_monitors() {
  const supervision& world = supervision::begin();
  faults.pipe2 = without_pipes;
  g_fun_misc = new Tfun_misc;
  g_sys_daemon = new Tsys_daemon(kPidFile, proc_start);
  for (const char* name : {"aa", "bb"})
    monitor_list.push_back(&new_monitor("/bin/true", name, "stop"));
  write_file(kPidFile, "");
  return world;
}

/// Runs `body` in a process of its own that works in the directory and is to end with status 0 by
/// itself.
void expect_exit(const scratch_dir& directory, const std::function<void()>& body) {
  const child_end end = run_in_child([&] {
    std::filesystem::current_path(directory.path());
    body();
  });
  EXPECT_EQ(end.failures, "");
  EXPECT_FALSE(end.returned);
  EXPECT_EQ(end.status, 0);
}

TEST(proc_stop, stops_all_in_the_order_of_the_list_and_deletes_what_there_is) {
  in_child([] {
    const supervision& world = begin_with_two_monitors();
    write_file("notify/aa.dat", "1");
    proc_stop();
    EXPECT_EQ(world.printed(), golden::stop_result("aa") + golden::stop_result("bb"));
    EXPECT_TRUE(monitor_list.empty());
    EXPECT_EQ(g_sys_daemon, nullptr);
    EXPECT_EQ(g_fun_misc, nullptr);
    EXPECT_EQ(g_logFile, nullptr);
    EXPECT_EQ(world.log(), golden::kClosed);
    EXPECT_FALSE(exists("notify/aa.dat"));
    EXPECT_TRUE(exists(kPidFile)) << "its handlers decide on that";
  });
}

TEST(proc_stop, deletes_nothing_while_a_thread_is_inside_the_gate) {
  in_child([] {
    const supervision& world = begin_with_two_monitors();
    g_shutdown_gate.admit();
    proc_stop();
    EXPECT_EQ(world.printed(), golden::stop_result("aa") + golden::stop_result("bb"));
    EXPECT_EQ(monitor_list.size(), 2U);
    EXPECT_NE(g_sys_daemon, nullptr);
    EXPECT_NE(g_fun_misc, nullptr);
    EXPECT_NE(g_logFile, nullptr);
    EXPECT_EQ(world.log(), "");
  });
}

TEST(proc_stop, has_the_process_end_at_once_while_a_thread_is_inside_the_gate) {
  const scratch_dir place;
  expect_exit(place, [] {
    begin_with_two_monitors();
    std::atexit([] { write_file("exit", "its handlers run"); });
    g_shutdown_gate.admit();
    proc_stop();
    std::exit(1);
  });
  EXPECT_FALSE(place.has("exit"));
}

TEST(signal_exit, removes_the_pid_file_last_and_ends_with_status_0) {
  const scratch_dir place;
  expect_exit(place, [] {
    begin_with_two_monitors();
    signal_exit(SIGUSR2);
  });
  EXPECT_EQ(place.read("keelmond.log"), golden::kClosed);
  EXPECT_FALSE(place.has(kPidFile));
}

TEST(sigint_interrupt, leaves_the_pid_file_and_ends_with_status_0) {
  const scratch_dir place;
  expect_exit(place, [] {
    begin_with_two_monitors();
    sigint_interrupt(SIGINT);
  });
  EXPECT_EQ(place.read("keelmond.log"), golden::kClosed);
  EXPECT_TRUE(place.has(kPidFile));
}

/// A list whose load leaves a line in the log, and starts nothing.
void write_list() {
  std::filesystem::create_directory("config");
  write_file("tool", "");
  write_file(kConfigPath, server_ini({{"tool"}}));
}

TEST(proc_start, loads_the_list_and_returns_when_it_cannot_be_watched) {
  in_child([] {
    const supervision& world = supervision::begin();
    write_list();
    faults.inotify_init1 = [](int) { return -1; };
    proc_start();
    EXPECT_EQ(world.printed(), golden::kLoad + golden::read_entry("tool"));
    EXPECT_EQ(count(world.log(), "access(X_OK)"), 1U);
  });
}

TEST(proc_start, waits_for_the_thread_that_forks) {
  in_child([] {
    const captured_output console(1);
    const captured_output errors(2);
    static std::atomic<int> refused{0};
    faults.pthread_create = [](pthread_t* thread, const pthread_attr_t* attributes,
                               void* (*body)(void*), void* argument) {
      if (++refused <= 2) return EAGAIN;
      return real::pthread_create(thread, attributes, body, argument);
    };
    // There is no configuration to be watched, so it returns.
    proc_start();
    EXPECT_EQ(count(errors.text(), "keelmond: no thread for starting programs"), 1U);
    EXPECT_GT(child::start_program("true"), 0);
  });
}

TEST(proc_start, grants_a_request_to_shut_down_before_anything_is_loaded) {
  const scratch_dir place;
  expect_exit(place, [] {
    begin_with_two_monitors();
    write_list();
    supervisor_signals::handle(SIGUSR2, signal_exit);
    ::raise(SIGUSR2);
    proc_start();
  });
  EXPECT_EQ(place.read("keelmond.log"), golden::kClosed);
  EXPECT_FALSE(place.has(kPidFile));
}

}  // namespace
