#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <thread>

#include "tests/process/watched_config.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/wait_until.h"

namespace {

namespace fs = std::filesystem;

TEST(config_path, is_relative_to_the_directory_of_the_start) {
  EXPECT_STREQ(kConfigPath, "./config/server.ini");
}

TEST(config_watcher, gives_up_without_an_inotify_instance) {
  in_child([] {
    const watcher& watch = new_watcher();
    faults.inotify_init1 = [](int) {
      errno = EMFILE;
      return -1;
    };
    char path[] = "./config/server.ini";
    EXPECT_EQ(watch_file(path), nullptr);
    EXPECT_EQ(watch.complaints(),
              "inotify_init: Too many open files\n"
              "keelmond: ./config/server.ini cannot be watched, so keelmond shuts down. User " +
                  std::to_string(::geteuid()) +
                  " has to have an inotify instance left (fs.inotify.max_user_instances), and "
                  "keelmond a descriptor (ulimit -n) (Too many open files). run.pid stays and "
                  "blocks the next start\n");
    EXPECT_EQ(watch.watches_ + watch.removed_ + pauses, 0);
    EXPECT_EQ(watch.loads(), 0U);
  });
}

TEST(config_watcher, gives_up_when_the_file_cannot_be_watched) {
  in_child([] {
    const watcher& watch = new_watcher();
    std::filesystem::remove(kConfigPath);
    const int before = ::dup(0);
    ::close(before);
    char path[] = "./config/server.ini";
    EXPECT_EQ(watch_file(path), nullptr);
    EXPECT_EQ(watch.complaints(), cannot_watch("No such file or directory"));
    EXPECT_EQ(pauses, 0);
    EXPECT_EQ(watch.loads(), 0U);
    const int after = ::dup(0);
    EXPECT_EQ(after, before) << "the instance is closed";
  });
}

TEST(config_watcher, gives_up_without_a_path) {
  in_child([] {
    const supervision& world = supervision::begin();
    EXPECT_EQ(watch_file(nullptr), nullptr);
    EXPECT_EQ(world.complaints(), cannot_watch("Bad address", "(null)"));
  });
}

TEST(config_watcher, a_modification_is_one_load_and_a_pause) {
  while_watching([](watcher& watch) {
    EXPECT_EQ(watch.loads(), 0U);
    modify();
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.loads(), 1U);
    EXPECT_EQ(watch.removed_, 1);
    EXPECT_EQ(watch.loads_at_removal_, 1U) << "the load is over before the watch is removed";
    EXPECT_EQ(watch.instances_, 2) << "each round has a fresh instance";
    EXPECT_EQ(pauses, 1);
    EXPECT_TRUE(never([&] { return watch.loads() > 1; }));
    EXPECT_EQ(watch.complaints(), "");
  });
}

TEST(config_watcher, many_events_of_one_read_are_one_load) {
  in_child([] {
    watcher& watch = new_watcher();
    static std::atomic<bool> written{false};
    static std::atomic<int> reads{0};
    faults.read = [](int fd, void* out, std::size_t size) {
      if (size == 1024) {  // not the parser's
        ++reads;
        wait_until([] { return written.load(); });
      }
      return real::read(fd, out, size);
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    modify();
    ASSERT_TRUE(wait_until([] { return reads == 1; }));
    modify();
    written = true;
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(reads, 1);
    EXPECT_EQ(watch.loads(), 1U);
    EXPECT_TRUE(never([&] { return watch.loads() > 1; }));
  });
}

TEST(config_watcher, what_is_modified_in_the_pause_is_not_seen) {
  in_child([] {
    watcher& watch = new_watcher();
    in_pause = [] {
      if (pauses == 1) modify();
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    modify();
    ASSERT_TRUE(watch.watches(2));
    EXPECT_TRUE(never([&] { return watch.loads() > 1; }));
    modify();
    ASSERT_TRUE(watch.watches(3));
    EXPECT_EQ(watch.loads(), 2U);
  });
}

TEST(config_watcher, other_changes_of_the_file_are_no_modification) {
  while_watching([](watcher& watch) {
    ASSERT_EQ(::chmod(kConfigPath, 0640), 0);
    EXPECT_EQ(read_file(kConfigPath), "[keelmond]\n");
    write_file("config/other", "");
    EXPECT_TRUE(never([&] { return watch.loads() > 0; }));
  });
}

TEST(config_watcher, a_deleted_file_is_one_load_and_the_end) {
  while_watching([](watcher& watch) {
    ASSERT_TRUE(watch.end());
    EXPECT_EQ(watch.loads(), 1U);
    EXPECT_EQ(pauses, 1);
    EXPECT_EQ(watch.complaints(), cannot_watch("No such file or directory"));
  });
}

TEST(config_watcher, a_replaced_file_is_one_load_at_once_and_watched_from_then_on) {
  while_watching([](watcher& watch) {
    write_file("config/new", "");
    fs::last_write_time("config/new", fs::file_time_type::clock::now() - std::chrono::seconds(1));
    fs::rename("config/new", kConfigPath);
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(looks, 0) << "it is whole from the start";
    EXPECT_EQ(watch.loads(), 1U);
    modify();
    ASSERT_TRUE(watch.watches(3));
    EXPECT_EQ(watch.loads(), 2U);
  });
}

TEST(config_watcher, a_failed_read_is_no_load_and_watching_goes_on) {
  in_child([] {
    watcher& watch = new_watcher();
    faults.read = [](int fd, void* out, std::size_t size) {
      static bool failed = false;
      if (failed) return real::read(fd, out, size);
      failed = true;
      errno = EINTR;
      return ssize_t{-1};
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    modify();
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.complaints(), "read: Interrupted system call\n");
    EXPECT_EQ(watch.loads(), 0U);
    EXPECT_EQ(watch.removed_, 0);
    EXPECT_EQ(pauses, 1);
    modify();
    ASSERT_TRUE(watch.watches(3));
    EXPECT_EQ(watch.loads(), 1U);
  });
}

TEST(config_watcher, a_read_of_nothing_counts_as_a_modification) {
  in_child([] {
    watcher& watch = new_watcher();
    faults.read = [](int, void*, std::size_t) { return ssize_t{0}; };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    modify();
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.loads(), 1U);
  });
}

TEST(config_watcher, loads_in_the_handler_of_sigusr1_on_its_own_thread) {
  in_child([] {
    static std::atomic<int> handled{0};
    static std::atomic<bool> own{false};
    static pthread_t handler_thread;
    watcher& watch = new_watcher();
    in_pause = [] { own = ::pthread_equal(handler_thread, ::pthread_self()) != 0; };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    ::signal(SIGUSR1, [](int sig) {
      handler_thread = ::pthread_self();
      server_config_changed(sig);
      ++handled;
    });
    modify();
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(watch.loads(), 1U);
    EXPECT_TRUE(own);
  });
}

TEST(config_watcher, a_sigusr1_from_outside_loads_and_the_watch_goes_on) {
  while_watching([](watcher& watch) {
    for (std::size_t count = 1; count <= 3; ++count) {
      ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
      ASSERT_TRUE(watch.loaded(count));
    }
    EXPECT_EQ(watch.watches_, 1);
    EXPECT_EQ(pauses, 0);
    modify();
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.loads(), 4U);
  });
}

TEST(server_config_changed, loads_for_sigusr1_and_for_nothing_else) {
  in_child([] {
    const supervision& world = supervision::begin();
    for (const int sig : {SIGUSR2, SIGINT, SIGHUP, 0, -1})
      server_config_changed(sig);
    EXPECT_EQ(world.printed(), "");
    server_config_changed(SIGUSR1);
    EXPECT_EQ(world.printed(), golden::kLoad);
  });
}

TEST(server_config_changed, keeps_errno_and_the_mask) {
  in_child([] {
    supervision::begin();
    sigset_t before;
    sigset_t after;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &before);
    errno = EXDEV;
    server_config_changed(SIGUSR1);
    EXPECT_EQ(errno, EXDEV);
    ::pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int sig = 1; sig < NSIG; ++sig)
      EXPECT_EQ(::sigismember(&before, sig), ::sigismember(&after, sig)) << sig;
  });
}

TEST(monitor_server_config, runs_the_watcher_on_another_thread_with_default_attributes) {
  in_child([] {
    new_watcher();
    std::filesystem::remove(kConfigPath);
    int created = 0;
    int joined = 0;
    faults.pthread_create = [&](pthread_t* thread, const pthread_attr_t* attributes,
                                void* (*body)(void*), void* argument) {
      ++created;
      EXPECT_EQ(attributes, nullptr);
      EXPECT_EQ(::signal(SIGUSR1, SIG_IGN), &server_config_changed) << "installed before";
      EXPECT_EQ(body, &watch_file);
      EXPECT_STREQ(static_cast<const char*>(argument), "./config/server.ini");
      return real::pthread_create(thread, attributes, body, argument);
    };
    faults.pthread_join = [&](pthread_t thread, void** result) {
      ++joined;
      return real::pthread_join(thread, result);
    };
    monitorServerConfig(kConfigPath);
    EXPECT_EQ(created, 1);
    EXPECT_EQ(joined, 1);
  });
}

TEST(monitor_server_config, installs_the_handler_that_loads) {
  in_child([] {
    new_watcher();
    std::filesystem::remove(kConfigPath);
    monitorServerConfig(kConfigPath);
    EXPECT_EQ(::signal(SIGUSR1, SIG_DFL), &server_config_changed);
  });
}

TEST(monitor_server_config, watches_itself_when_no_thread_can_be_created) {
  in_child([] {
    const watcher& watch = new_watcher();
    faults.pthread_create = [](auto...) { return EAGAIN; };
    // Deleted in the first round, so that it comes back.
    faults.ppoll = [](pollfd* requests, nfds_t count, const timespec* limit, const sigset_t* mask) {
      if (limit == nullptr) std::filesystem::remove(kConfigPath);
      return real::ppoll(requests, count, limit, mask);
    };
    monitorServerConfig(kConfigPath);
    EXPECT_EQ(watch.loads(), 1U);
  });
}

}  // namespace
