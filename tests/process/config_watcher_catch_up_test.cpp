#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "process/server_config.h"
#include "process/supervisor_signals.h"
#include "tests/process/watched_config.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/wait_until.h"

// What becomes of saves that no event tells of, because they come while the file is being loaded.

namespace {

namespace fs = std::filesystem;

TEST(config_watcher, what_was_saved_during_the_first_load_is_loaded_when_the_first_watch_is_set) {
  in_child([] {
    watcher& watch = new_watcher();
    loadServerConfig(kConfigPath);
    replace(naming("meanwhile"));
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    EXPECT_EQ(watch.printed(), golden::kLoad + load_of("meanwhile"));
    EXPECT_EQ(pauses, 0) << "the watch that was set goes on";
    EXPECT_TRUE(never([&] { return watch.loads() > 2; }));
  });
}

TEST(config_watcher, what_was_loaded_first_and_stands_there_still_is_not_loaded_again) {
  in_child([] {
    watcher& watch = new_watcher();
    loadServerConfig(kConfigPath);
    ASSERT_EQ(::chmod(kConfigPath, 0600), 0);
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    EXPECT_TRUE(never([&] { return watch.loads() > 1; }));
  });
}

TEST(config_watcher, what_replaces_the_file_when_the_first_watch_has_just_been_set_is_loaded_once) {
  in_child([] {
    watcher& watch = new_watcher();
    loadServerConfig(kConfigPath);
    const auto added = faults.inotify_add_watch;
    faults.inotify_add_watch = [=](int fd, const char* path, std::uint32_t events) {
      static bool is_first = true;
      const int number = added(fd, path, events);
      if (std::exchange(is_first, false)) replace(naming("late"));
      return number;
    };
    watch.start();
    ASSERT_TRUE(watch.watches(2)) << "the file that was loaded is watched";
    EXPECT_EQ(watch.printed(), golden::kLoad + load_of("late"));
    EXPECT_EQ(pauses, 0);
    EXPECT_TRUE(never([&] { return watch.loads() > 2; }));
  });
}

/// Saves while the first load of a test's watcher reads what was there before.
void save_during_the_next_load(const std::function<void()>& save) {
  faults.pipe2 = [=](int* ends, int flags) {
    const auto once = save;
    faults.pipe2 = nullptr;
    once();
    return without_pipes(ends, flags);
  };
}

TEST(config_watcher, what_was_saved_during_a_reload_is_loaded_before_the_pause) {
  in_child([] {
    watcher& watch = new_watcher();
    Tfun_monitor& known = new_monitor("/bin/true", "known", "stop");
    monitor_list.push_back(&known);
    static std::size_t loads_at_pause = 0;
    in_pause = [&] { loads_at_pause = watch.loads(); };
    // Its stop command is where the load can be met.
    save_during_the_next_load([] { replace(naming("meanwhile")); });
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    replace(naming("known"));
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.loads(), 2U);
    EXPECT_EQ(loads_at_pause, 2U);
    EXPECT_TRUE(watch.printed().ends_with(load_of("meanwhile")));
  });
}

TEST(config_watcher, what_was_saved_during_a_reload_in_the_pause_is_loaded_when_it_ends) {
  in_child([] {
    watcher& watch = new_watcher();
    monitor_list.push_back(&new_monitor("/bin/true", "known", "stop"));
    in_pause = [] {
      if (pauses > 1) return;
      save_during_the_next_load([] { replace(naming("meanwhile")); });
      ::kill(::getpid(), SIGUSR1);
      supervisor_signals::deliver();
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    faults.pipe2 = without_pipes;
    replace(naming("known"));
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.loads(), 3U);
    EXPECT_TRUE(watch.printed().ends_with(load_of("meanwhile")));
  });
}

TEST(config_watcher, what_is_saved_in_the_pause_after_a_reload_is_not_seen_either) {
  in_child([] {
    watcher& watch = new_watcher();
    in_pause = [] {
      ::kill(::getpid(), SIGUSR1);
      supervisor_signals::deliver();
      replace(naming("unseen"));
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    modify();
    ASSERT_TRUE(watch.watches(2));
    EXPECT_TRUE(never([&] { return watch.loads() > 2; }));
  });
}

TEST(config_watcher, what_was_saved_right_before_the_watch_goes_is_loaded) {
  in_child([] {
    watcher& watch = new_watcher();
    const auto removed = faults.inotify_rm_watch;
    faults.inotify_rm_watch = [=](int fd, int number) {
      if (pauses == 0) replace(naming("late"));
      return removed(fd, number);
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    modify();
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.printed(), golden::kLoad + load_of("late"));
  });
}

/// The next tick of a clock with a hundred of them in a second.
timespec next_tick() {
  constexpr long kTick = 10'000'000;
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  now.tv_nsec += kTick - now.tv_nsec % kTick;
  if (now.tv_nsec < 1'000'000'000) return now;
  return {now.tv_sec + 1, 0};
}

/// Writes a file as a kernel does that knows the time no better.
void write_by_a_slow_clock(const std::string& path, const std::string& text) {
  write_file(path, text);
  const timespec now = next_tick();
  const std::array<timespec, 2> times{now, now};
  EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
}

TEST(config_watcher, what_is_written_into_a_file_that_was_just_moved_in_is_told_from_it) {
  in_child([] {
    watcher& watch = new_watcher();
    monitor_list.push_back(&new_monitor("/bin/true", "known", "stop"));
    save_during_the_next_load([] { write_by_a_slow_clock(kConfigPath, naming("again")); });
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    // Right after a tick, so that the load would come before the next.
    const timespec last = next_tick();
    while (next_tick().tv_nsec == last.tv_nsec) {
    }
    write_by_a_slow_clock("config/new", naming("known"));
    fs::rename("config/new", kConfigPath);
    ASSERT_TRUE(watch.watches(2));
    EXPECT_TRUE(watch.printed().ends_with(load_of("again")));
  });
}

TEST(config_watcher, a_file_that_is_absent_right_when_it_is_loaded_is_waited_for) {
  in_child([] {
    watcher& watch = new_watcher();
    in_look = [](int /*look*/) {
      static int absent = 0;
      if (!exists(kConfigPath) && ++absent == 5) write_file(kConfigPath, naming("late"));
    };
    static std::size_t loads_at_pause = 0;
    in_pause = [&] { loads_at_pause = watch.loads(); };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    ::signal(SIGUSR1, [](int sig) {
      static bool removed = false;
      if (!removed) removed = fs::remove(kConfigPath);
      server_config_changed(sig);
    });
    modify();
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.printed(), golden::kLoad + load_of("late"));
    EXPECT_EQ(loads_at_pause, 2U);
    EXPECT_EQ(watch.removed_, 1);
  });
}

TEST(config_watcher, a_file_that_changes_during_every_load_gets_its_pause) {
  in_child([] {
    watcher& watch = new_watcher();
    monitor_list.push_back(&new_monitor("/bin/true", "known", "stop"));
    faults.pipe2 = [](int* ends, int flags) {
      if (pauses == 0) modify();
      return without_pipes(ends, flags);
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    replace(naming("known"));
    EXPECT_TRUE(watch.watches(2));
    EXPECT_EQ(pauses, 1);
    EXPECT_EQ(watch.loads(), 62U) << "a save may take a minute";
  });
}

TEST(config_watcher, a_file_that_was_deleted_during_a_reload_is_not_loaded_again) {
  in_child([] {
    watcher& watch = new_watcher();
    monitor_list.push_back(&new_monitor("/bin/true", "known", "stop"));
    save_during_the_next_load([] { fs::remove(kConfigPath); });
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    replace(naming("known"));
    ASSERT_TRUE(wait_until([&] { return !watch.complaints().empty(); }));
    EXPECT_TRUE(watch.end());
    EXPECT_EQ(watch.loads(), 1U);
  });
}

}  // namespace
