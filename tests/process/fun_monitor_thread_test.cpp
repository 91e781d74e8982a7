#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>

#include "common/log/log_file.h"
#include "process/fun_monitor.h"
#include "process/shutdown_gate.h"
#include "tests/process/imagined_programs.h"
#include "tests/process/supervision.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/wait_until.h"

namespace {

TEST(fun_monitor_thread, is_one_however_often_it_is_started) {
  in_child([] {
    supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    std::atomic<int> created{0};
    faults.pthread_create = [&](pthread_t* thread, const pthread_attr_t* attributes,
                                void* (*body)(void*), void* argument) {
      ++created;
      return real::pthread_create(thread, attributes, body, argument);
    };
    Tfun_monitor& monitor = new_monitor("/a/b", "often");
    for (int i = 0; i < 10; ++i)
      monitor.Start();
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    monitor.Start();
    EXPECT_EQ(created, 1);
    EXPECT_TRUE(never([&] { return programs.forks > 1; }));
  });
}

TEST(fun_monitor_thread, is_inside_the_gate_from_its_creation_on_and_not_when_creating_it_fails) {
  in_child([] {
    supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    Tfun_monitor& monitor = new_monitor("/a/b", "gated");
    faults.pthread_create = [](auto...) { return EAGAIN; };
    monitor.Start();
    EXPECT_TRUE(g_shutdown_gate.wait_until_empty(std::chrono::milliseconds(0)));
    static bool inside_when_created = false;
    faults.pthread_create = [](pthread_t* thread, const pthread_attr_t* attributes,
                               void* (*body)(void*), void* argument) {
      inside_when_created = !g_shutdown_gate.wait_until_empty(std::chrono::milliseconds(0));
      return real::pthread_create(thread, attributes, body, argument);
    };
    monitor.Start();
    EXPECT_TRUE(inside_when_created);
    EXPECT_TRUE(wait_until([&] { return programs.is_waiting(1); })) << "a later start tries again";
    EXPECT_TRUE(g_shutdown_gate.wait_until_empty(std::chrono::seconds(20))) << "it waits";
  });
}

// How the monitors come to rest when the supervisor shuts down.

TEST(fun_monitor_at_shutdown, the_end_of_a_program_is_recorded_but_it_is_not_started_again) {
  in_child([] {
    const supervision& world = supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    auto* monitor = &new_monitor("/a/b", "stopping");
    monitor->Start();
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    EXPECT_TRUE(g_shutdown_gate.wait_until_empty(std::chrono::seconds(20)))
        << "who waits for a program is outside";
    g_shutdown_gate.forbid_launches();
    programs.end_one();
    ASSERT_TRUE(wait_until([&] { return Tfun_monitor::programs_alive() == 0; }));
    ASSERT_TRUE(g_shutdown_gate.wait_until_empty(std::chrono::seconds(20)));
    EXPECT_TRUE(never([&] { return programs.forks > 1; }));
    EXPECT_EQ(world.log(), launched(5000000) + exited("5000000", 0));
    g_shutdown_gate.close();
    ASSERT_TRUE(g_shutdown_gate.wait_until_empty(std::chrono::seconds(20)));
    delete monitor;
  });
}

TEST(fun_monitor_at_shutdown, a_program_that_outlives_the_monitor_is_not_recorded) {
  in_child([] {
    const supervision& world = supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    auto* monitor = &new_monitor("/a/b", "late");
    monitor->Start();
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    g_shutdown_gate.forbid_launches();
    g_shutdown_gate.close();
    ASSERT_TRUE(g_shutdown_gate.wait_until_empty(std::chrono::seconds(20)));
    const std::string log = world.log();
    delete monitor;
    delete g_logFile;
    g_logFile = nullptr;
    programs.end_one();
    EXPECT_TRUE(never([&] { return programs.forks > 1 || world.printed() != ""; }));
    EXPECT_EQ(world.log(), log + golden::kClosed);
  });
}

TEST(fun_monitor_at_shutdown, an_idle_monitor_stops_when_its_second_is_over) {
  in_child([] {
    supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    auto* monitor = &new_monitor("/a/b", "idle", "stop");
    monitor->Start();
    ASSERT_TRUE(wait_until([&] { return programs.sleeps > 1; }));
    g_shutdown_gate.close();
    ASSERT_TRUE(g_shutdown_gate.wait_until_empty(std::chrono::seconds(20)));
    delete monitor;
    const int sleeps = programs.sleeps;
    EXPECT_TRUE(never([&] { return programs.sleeps > sleeps + 1; }));
  });
}

}  // namespace
