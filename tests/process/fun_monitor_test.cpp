#include "process/fun_monitor.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "common/log/log_file.h"
#include "common/misc/unique_fd.h"
#include "process/child.h"
#include "process/server_config.h"
#include "tests/process/imagined_programs.h"
#include "tests/process/supervision.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/server_ini.h"
#include "tests/support/wait_until.h"

namespace {

/// Notes changes of the log and of the liveness files, in their order.
class file_changes final {
 public:
  file_changes() {
    ::inotify_add_watch(queue_.get(), "keelmond.log", IN_MODIFY);
    ::inotify_add_watch(queue_.get(), "notify", IN_CLOSE_WRITE | IN_DELETE);
  }
  /// @return what has happened since the last call, one word for each change.
  [[nodiscard]] std::string take() const {
    alignas(inotify_event) char events[4096];
    const ssize_t got = ::read(queue_.get(), events, sizeof events);
    std::string words;
    std::string last;
    for (ssize_t at = 0; at < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(events + at);
      at += static_cast<ssize_t>(sizeof *event + event->len);
      const std::string word = event->mask & IN_MODIFY   ? "log "
                               : event->mask & IN_DELETE ? "dead "
                                                         : "alive ";
      if (word != last) words += word;
      last = word;
    }
    return words;
  }

 private:
  unique_fd queue_{::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)};
};

TEST(fun_monitor, a_new_one_has_started_nothing) {
  const Tfun_monitor monitor("/bin/true", "name", "run");
  EXPECT_EQ(monitor.last_pid(), 0);
  EXPECT_STREQ(monitor.program_name(), "name");
  EXPECT_FALSE(monitor.IsRunning());
  EXPECT_TRUE(monitor.IsAbort());
  EXPECT_EQ(Tfun_monitor::programs_alive(), 0);
}

TEST(fun_monitor, null_texts_count_as_empty) {
  Tfun_monitor monitor(nullptr, nullptr, nullptr);
  EXPECT_STREQ(monitor.program_name(), "");
  monitor.update_state(nullptr);
}

TEST(fun_monitor, a_name_that_does_not_fit_is_cut_at_511_bytes) {
  const std::string longest(511, 'n');
  EXPECT_EQ(Tfun_monitor("", longest.c_str(), "").program_name(), longest);
  EXPECT_EQ(Tfun_monitor("", (longest + "m").c_str(), "").program_name(), longest);
  EXPECT_EQ(Tfun_monitor("", std::string(9000, 'n').c_str(), "").program_name(), longest);
}

TEST(fun_monitor, one_run_is_logged_shown_and_kept_in_the_liveness_file) {
  in_child([] {
    const supervision& world = supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    Tfun_monitor& monitor = new_monitor("/a/b", "one");
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    EXPECT_EQ(monitor.last_pid(), 5000000);
    EXPECT_EQ(programs.waited_for, 5000000);
    EXPECT_EQ(programs.wait_options, WUNTRACED);
    EXPECT_EQ(read_file("notify/one.dat"), "1");
    EXPECT_EQ(world.log(), launched(5000000));
    EXPECT_EQ(world.printed(), "");
    EXPECT_EQ(Tfun_monitor::programs_alive(), 1);

    monitor.update_state("stop");
    programs.end_one();
    ASSERT_TRUE(wait_until([&] { return programs.sleeps > 0; }));
    EXPECT_FALSE(exists("notify/one.dat"));
    EXPECT_EQ(world.log(), launched(5000000) + exited("5000000", 0));
    EXPECT_EQ(world.printed(), golden::kWaitReturned);
    EXPECT_EQ(monitor.last_pid(), 5000000) << "never reset";
    EXPECT_EQ(Tfun_monitor::programs_alive(), 0);
    EXPECT_TRUE(monitor.IsRunning());
  });
}

TEST(fun_monitor, records_a_launch_and_an_end_step_by_step) {
  in_child([] {
    supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    const file_changes changes;
    Tfun_monitor& monitor = new_monitor("/a/b", "step");
    faults.write = [&](int fd, const void* text, std::size_t size) {
      if (std::string_view(static_cast<const char*>(text), size) == golden::kWaitReturned) {
        EXPECT_EQ(changes.take(), "log dead ");
      } else {
        EXPECT_EQ(monitor.last_pid(), imagined_programs::kFirst) << "known before it is alive";
      }
      return real::write(fd, text, size);
    };
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    EXPECT_EQ(changes.take(), "alive log ");
    monitor.update_state("stop");
    programs.end_one();
    ASSERT_TRUE(wait_until([&] { return programs.sleeps > 0; }));
    EXPECT_EQ(changes.take(), "") << "nothing after the console's line";
  });
}

TEST(fun_monitor, a_program_that_ends_is_started_again_at_once) {
  in_child([] {
    const supervision& world = supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    Tfun_monitor& monitor = new_monitor("/a/b", "again");
    monitor.Start();
    programs.may_end = 3;
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(4); }));
    EXPECT_EQ(programs.sleeps, 0) << "no pause";
    EXPECT_EQ(world.log(), launched(5000000) + exited("5000000", 0) + launched(5000001) +
                               exited("5000001", 0) + launched(5000002) + exited("5000002", 0) +
                               launched(5000003));
    EXPECT_EQ(world.printed(),
              std::string(golden::kWaitReturned) + golden::kWaitReturned + golden::kWaitReturned);
    EXPECT_EQ(monitor.last_pid(), 5000003);
    EXPECT_EQ(Tfun_monitor::programs_alive(), 1);
    EXPECT_TRUE(exists("notify/again.dat"));
  });
}

TEST(fun_monitor, the_result_and_errno_of_the_wait_are_logged_whether_or_not_it_failed) {
  in_child([] {
    const supervision& world = supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    Tfun_monitor& monitor = new_monitor("/a/b", "errno");
    static std::atomic<int> call{0};
    faults.waitpid = [&](pid_t pid, int*, int) {
      switch (++call) {
        case 1:
          errno = ECHILD;
          return -1;
        case 2:
          errno = EXDEV;
          return pid;
        case 3:
        case 4:
          errno = EINTR;  // no end of the program
          return -1;
        default:
          monitor.update_state("stop");
          errno = EINVAL;
          return -1;
      }
    };
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return programs.sleeps > 0; }));
    EXPECT_EQ(world.log(), launched(5000000) + exited("4294967295", 10) + launched(5000001) +
                               exited("5000001", EXDEV) + launched(5000002) +
                               exited("4294967295", EINVAL));
  });
}

TEST(fun_monitor, any_state_but_run_is_idle) {
  for (const char* state :
       {"stop", "", "Run", "RUN", "run ", " run", "runs", "ru", "r", "restart"}) {
    SCOPED_TRACE(state);
    in_child([&] {
      const supervision& world = supervision::begin();
      imagined_programs& programs = imagined_programs::begin();
      Tfun_monitor& monitor = new_monitor("/a/b", "idle", state);
      monitor.Start();
      ASSERT_TRUE(wait_until([&] { return programs.sleeps > 2; }));
      EXPECT_EQ(programs.forks, 0);
      EXPECT_EQ(programs.slept_seconds, 1);
      EXPECT_EQ(programs.slept_microseconds, 0);
      EXPECT_EQ(monitor.last_pid(), 0);
      EXPECT_TRUE(monitor.IsRunning());
      EXPECT_EQ(world.log() + world.printed(), "");
      monitor.update_state("run");
      EXPECT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    });
  }
}

TEST(fun_monitor, another_state_neither_ends_the_program_nor_starts_it_again) {
  in_child([] {
    supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    Tfun_monitor& monitor = new_monitor("/a/b", "state");
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    monitor.update_state("anything");
    EXPECT_TRUE(never([&] { return programs.sleeps > 0 || programs.forks > 1; }));
    programs.end_one();
    ASSERT_TRUE(wait_until([&] { return programs.sleeps > 2; }));
    EXPECT_EQ(programs.forks, 1);
    monitor.update_state("run");
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(2); }));
    EXPECT_EQ(programs.forks, 2);
  });
}

TEST(fun_monitor, a_state_of_127_bytes_is_kept_and_a_longer_one_is_cut) {
  in_child([] {
    supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    Tfun_monitor& monitor = new_monitor("/a/b", "long", std::string(900, 'r').c_str());
    monitor.Start();
    monitor.update_state(std::string(127, 'r').c_str());
    monitor.update_state(std::string(5000, 'r').c_str());
    const int seen = programs.sleeps;
    ASSERT_TRUE(wait_until([&] { return programs.sleeps > seen + 2; }));
    EXPECT_EQ(programs.forks, 0);
    monitor.update_state("run");
    EXPECT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
  });
}

TEST(fun_monitor, a_state_that_is_half_replaced_is_never_run) {
  in_child([] {
    supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    faults.select = [&](auto...) {
      ++programs.sleeps;
      return 0;
    };
    Tfun_monitor& monitor = new_monitor("/a/b", "half", "rxn");
    monitor.Start();
    for (int i = 0; i < 3000; ++i) {
      monitor.update_state("xun");
      monitor.update_state("rxn");
      monitor.update_state("runner");
    }
    ASSERT_TRUE(wait_until([&] { return programs.sleeps > 0; }));
    EXPECT_EQ(programs.forks, 0);
  });
}

TEST(fun_monitor, setting_run_again_is_never_seen_as_anything_else) {
  in_child([] {
    supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    faults.waitpid = [](pid_t pid, int*, int) { return pid; };
    Tfun_monitor& monitor = new_monitor("/a/b", "same");
    monitor.Start();
    ASSERT_TRUE(wait_until([&] {
      for (int i = 0; i < 1000; ++i)
        monitor.update_state("run");
      return programs.forks > 1000;
    }));
    EXPECT_EQ(programs.sleeps, 0);
  });
}

TEST(fun_monitor, a_fork_that_fails_is_reported_and_tried_again_at_once) {
  in_child([] {
    const supervision& world = supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    faults.fork = [&] {
      if (++programs.forks > 3) return imagined_programs::kFirst;
      errno = programs.forks == 2 ? ENOMEM : EAGAIN;
      return -1;
    };
    Tfun_monitor& monitor = new_monitor("/a/b", "fork");
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    EXPECT_EQ(programs.sleeps, 0) << "no pause";
    EXPECT_EQ(world.printed(),
              "fork() error.errno:11 error:Resource temporarily unavailable\n"
              "fork() error.errno:12 error:Cannot allocate memory\n"
              "fork() error.errno:11 error:Resource temporarily unavailable\n");
    EXPECT_EQ(world.log(), launched(5000000));
  });
}

TEST(fun_monitor, a_fork_that_keeps_failing_is_tried_for_as_long_as_the_state_is_run) {
  in_child([] {
    const supervision& world = supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    Tfun_monitor& monitor = new_monitor("/a/b", "fork");
    faults.fork = [&] {
      if (++programs.forks == 50) monitor.update_state("stop");
      errno = EAGAIN;
      return -1;
    };
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return programs.sleeps > 2; }));
    EXPECT_EQ(programs.forks, 50);
    EXPECT_EQ(count(world.printed(), "fork() error."), 50U);
    EXPECT_EQ(world.log(), "");
    EXPECT_EQ(monitor.last_pid(), 0);
    EXPECT_EQ(Tfun_monitor::programs_alive(), 0);
    EXPECT_FALSE(exists("notify/fork.dat"));
  });
}

TEST(fun_monitor, another_negative_result_of_fork_is_tried_again_without_a_word) {
  in_child([] {
    const supervision& world = supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    faults.fork = [&] { return ++programs.forks > 2 ? imagined_programs::kFirst : -2; };
    Tfun_monitor& monitor = new_monitor("/a/b", "fork");
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    EXPECT_EQ(world.printed(), "");
    EXPECT_EQ(world.log(), launched(5000000));
  });
}

TEST(fun_monitor, ends_when_its_program_has_ended_more_than_200000_times) {
  in_child([] {
    child::start();
    // Without all this each round costs less. Where there is no thread that records, each does.
    faults.pthread_create = [](auto...) { return EAGAIN; };
    const supervision& world = supervision::begin();
    faults.pthread_create = nullptr;
    imagined_programs& programs = imagined_programs::begin();
    faults.waitpid = [](pid_t pid, int*, int) { return pid; };
    delete g_logFile;
    g_logFile = nullptr;
    std::filesystem::remove("notify");
    Tfun_monitor& monitor = new_monitor("/a/b", "often");
    monitor.Start();
    ASSERT_TRUE(wait_until([&] { return monitor.last_pid() != 0; }));
    monitor.Stop();  // joins it
    EXPECT_FALSE(monitor.IsRunning());
    EXPECT_EQ(programs.forks, 200001);
    const std::string printed = world.printed();
    EXPECT_EQ(count(printed, golden::kWaitReturned), 200000U);
    const std::string last =
        std::string(golden::kWaitReturned) + "Restarted more than 200 times.\r\n";
    EXPECT_EQ(printed.substr(printed.size() - last.size()), last);
    EXPECT_EQ(printed.size(), 200000 * std::strlen(golden::kWaitReturned) + 32);
    EXPECT_EQ(monitor.last_pid(), imagined_programs::kFirst + 200000);
    EXPECT_EQ(Tfun_monitor::programs_alive(), 0);

    // It is not started again: it has had a program.
    monitor_list.push_back(&monitor);
    write_file("server.ini", server_ini({{"often", "/bin/true"}}));
    loadServerConfig("server.ini");
    EXPECT_EQ(world.printed().substr(printed.size()),
              "loadServerConfig : server.ini\r\nread ini file often \r\n"
              "monitor often Start 11.\r\n");
    EXPECT_FALSE(monitor.IsRunning());
    EXPECT_EQ(programs.forks, 200001);
  });
}

}  // namespace
