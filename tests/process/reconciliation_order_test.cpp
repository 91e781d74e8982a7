#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <string>

#include "process/server_config.h"
#include "tests/process/supervision.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/server_ini.h"

// What has been done, and what has not, when an entry's thread or stop command is about to start.

namespace {

void write_configuration(const std::string& state) {
  write_file("server.ini", server_ini({{"aa", "/bin/true", state}}));
}

/// Has `look` called in the place of each monitor's thread, which cannot be created.
template <typename Look>
void instead_of_a_thread(Look look) {
  faults.pthread_create = [look](auto...) {
    look();
    return EAGAIN;
  };
}

TEST(reconciliation_order, a_new_monitor_is_listed_then_started_then_marked_alive) {
  in_child([] {
    const supervision& world = supervision::begin();
    int looks = 0;
    instead_of_a_thread([&] {
      ++looks;
      EXPECT_TRUE(world.printed().ends_with("monitor aa Start 333.\r\n"));
      EXPECT_EQ(monitor_list.size(), 1U);
      EXPECT_FALSE(exists("notify/aa.dat"));
    });
    write_configuration("run");
    loadServerConfig("server.ini");
    EXPECT_EQ(looks, 1);
    EXPECT_TRUE(exists("notify/aa.dat"));
  });
}

TEST(reconciliation_order, a_known_monitor_is_started_between_its_two_lines_then_marked_alive) {
  in_child([] {
    const supervision& world = supervision::begin();
    monitor_list = {&new_monitor("/bin/true", "aa", "stop")};
    int looks = 0;
    instead_of_a_thread([&] {
      ++looks;
      EXPECT_TRUE(world.printed().ends_with("monitor aa Start 11.\r\n"));
      EXPECT_FALSE(exists("notify/aa.dat"));
    });
    // The mark is the last step.
    faults.write = [&](int fd, const void* text, std::size_t size) {
      if (std::string(static_cast<const char*>(text), size) == "1") {
        EXPECT_TRUE(world.printed().ends_with("monitor aa Start 22.\r\n"));
      }
      return real::write(fd, text, size);
    };
    write_configuration("run");
    loadServerConfig("server.ini");
    EXPECT_EQ(looks, 1);
    EXPECT_TRUE(exists("notify/aa.dat"));
  });
}

TEST(reconciliation_order, a_stop_command_comes_after_its_line_and_before_the_mark_is_removed) {
  in_child([] {
    const supervision& world = supervision::begin();
    monitor_list = {&new_monitor("/bin/true", "aa")};
    write_file("notify/aa.dat", "1");
    int looks = 0;
    faults.fork = [&] {
      ++looks;
      EXPECT_TRUE(world.printed().ends_with("monitor aa stopped.\r\n"));
      EXPECT_TRUE(exists("notify/aa.dat"));
      return -1;
    };
    write_configuration("stop");
    loadServerConfig("server.ini");
    EXPECT_EQ(looks, 1);
    EXPECT_FALSE(exists("notify/aa.dat"));
  });
}

}  // namespace
