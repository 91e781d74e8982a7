#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>

#include "process/server_config.h"
#include "tests/process/watched_config.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/wait_until.h"

// What becomes of saves that do not simply write the file, or put another in its place.

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

TEST(config_watcher, a_save_in_pieces_is_one_load_of_the_whole_file) {
  in_child([] {
    watcher& watch = new_watcher();
    // Empty for longer than a quiet moment, then a line at each look.
    in_look = [](int look) {
      static std::istringstream lines(naming("late"));
      std::string line;
      if (look > 15 && std::getline(lines, line)) append(line + "\n");
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    ASSERT_EQ(::truncate(kConfigPath, 0), 0);
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.printed(), load_of("late"));
  });
}

TEST(config_watcher, a_file_that_stays_empty_is_waited_for_a_second) {
  while_watching([](watcher& watch) {
    const auto start = steady::now();
    ASSERT_EQ(::truncate(kConfigPath, 0), 0);
    ASSERT_TRUE(watch.loaded(1));
    EXPECT_GE(steady::now() - start, milliseconds(900));
  });
}

TEST(config_watcher, a_file_that_goes_while_it_is_saved_is_not_waited_for) {
  in_child([] {
    watcher& watch = new_watcher();
    in_look = [](int look) {
      if (look == 1) replace("[keelmond]\n");
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    ASSERT_EQ(::truncate(kConfigPath, 0), 0);
    ASSERT_TRUE(watch.loaded(1));
    EXPECT_LT(looks, 20) << "a quiet moment, not the second that an empty file gets";
  });
}

TEST(config_watcher, a_file_that_is_removed_and_made_anew_is_waited_for_and_loaded_whole) {
  in_child([] {
    watcher& watch = new_watcher();
    in_look = [](int look) {
      const std::string text = naming("anew");
      if (look == 5) write_file(kConfigPath, "");
      if (look == 20) append(text.substr(0, 20));
      if (look == 21) append(text.substr(20));
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    fs::remove(kConfigPath);
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.printed(), load_of("anew"));
  });
}

TEST(config_watcher, a_file_that_stays_away_is_waited_for_half_a_second) {
  while_watching([](watcher& watch) {
    const auto start = steady::now();
    ASSERT_TRUE(watch.end());
    EXPECT_GE(steady::now() - start, milliseconds(450));
    EXPECT_EQ(watch.loads(), 1U);
    EXPECT_EQ(watch.complaints(), cannot_watch("No such file or directory"));
  });
}

TEST(config_watcher, a_file_that_is_absent_when_the_pause_ends_is_waited_for) {
  in_child([] {
    watcher& watch = new_watcher();
    in_pause = [] {
      if (pauses == 1) fs::remove(kConfigPath);
    };
    in_look = [](int /*look*/) {
      static int absent = 0;
      if (!exists(kConfigPath) && ++absent == 5) write_file(kConfigPath, "[keelmond]\n");
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    modify();
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.complaints(), "");
  });
}

/// Calls `before` before each watch on the file is set.
void before_each_watch(const std::function<void()>& before) {
  const auto watched = faults.inotify_add_watch;
  faults.inotify_add_watch = [=](int fd, const char* path, std::uint32_t events) {
    if ((events & IN_MODIFY) != 0) before();
    return watched(fd, path, events);
  };
}

TEST(config_watcher, a_file_that_goes_right_before_it_is_watched_is_waited_for_and_loaded) {
  in_child([] {
    watcher& watch = new_watcher();
    loadServerConfig(kConfigPath);
    before_each_watch([] {
      static int watches = 0;
      if (++watches == 1) fs::remove(kConfigPath);
    });
    in_look = [](int look) {
      if (look == 5) write_file(kConfigPath, naming("anew"));
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    EXPECT_EQ(watch.printed(), golden::kLoad + load_of("anew"));
    EXPECT_EQ(watch.complaints(), "");
  });
}

TEST(config_watcher, a_file_that_comes_right_before_it_is_watched_is_loaded) {
  in_child([] {
    watcher& watch = new_watcher();
    in_pause = [] {
      if (pauses == 1) fs::remove(kConfigPath);
    };
    before_each_watch([] {
      if (!exists(kConfigPath)) write_file(kConfigPath, naming("back"));
    });
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    modify();
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.printed(), golden::kLoad + load_of("back"));
  });
}

TEST(config_watcher, a_file_that_is_not_its_user_s_yet_is_waited_for) {
  in_child([] {
    watcher& watch = new_watcher();
    const auto watched = faults.inotify_add_watch;
    faults.inotify_add_watch = [=](int fd, const char* path, std::uint32_t events) {
      static int refused = 0;
      if ((events & IN_MODIFY) == 0 || ++refused > 3) return watched(fd, path, events);
      errno = EACCES;
      return -1;
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    EXPECT_EQ(watch.complaints(), "");
  });
}

TEST(config_watcher, a_file_that_stays_another_user_s_is_the_end) {
  in_child([] {
    watcher& watch = new_watcher();
    faults.inotify_add_watch = [](auto...) {
      errno = EACCES;
      return -1;
    };
    const auto start = steady::now();
    watch_file(const_cast<char*>(kConfigPath));
    EXPECT_GE(steady::now() - start, milliseconds(450));
    EXPECT_EQ(watch.complaints(), cannot_watch("Permission denied"));
  });
}

TEST(config_watcher, a_file_that_comes_and_goes_is_loaded_all_the_same) {
  in_child([] {
    watcher& watch = new_watcher();
    in_look = [&](int look) {
      if (watch.loads() > 0 || look % 2 == 0) {
        if (!exists(kConfigPath)) write_file(kConfigPath, "[keelmond]\n");
      } else {
        fs::remove(kConfigPath);
      }
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    modify();
    EXPECT_TRUE(watch.watches(2));
  });
}

TEST(config_watcher, a_file_that_is_moved_away_as_a_backup_does_not_take_the_watch_along) {
  in_child([] {
    watcher& watch = new_watcher();
    watch.start();
    for (int save = 1; save <= 3; ++save) {
      ASSERT_TRUE(watch.watches(save));
      fs::rename(kConfigPath, "config/server.ini~");
      write_file(kConfigPath, naming("backed" + std::to_string(save)));
    }
    ASSERT_TRUE(watch.watches(4));
    EXPECT_EQ(watch.printed(), load_of("backed1") + load_of("backed2") + load_of("backed3"));
  });
}

TEST(config_watcher, a_file_that_is_moved_in_after_the_other_was_moved_away_is_loaded) {
  while_watching([](watcher& watch) {
    write_file("config/next", naming("moved"));
    fs::rename(kConfigPath, "config/server.ini~");
    fs::rename("config/next", kConfigPath);
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.printed(), load_of("moved"));
  });
}

TEST(config_watcher, a_link_that_is_replaced_is_a_save) {
  in_child([] {
    watcher& watch = new_watcher();
    write_file("config/one", "[keelmond]\n");
    write_file("config/two", naming("two"));
    fs::remove(kConfigPath);
    fs::create_symlink("one", kConfigPath);
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    fs::create_symlink("two", "config/new");
    fs::rename("config/new", kConfigPath);
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.printed(), load_of("two"));
    write_file("config/two", naming("again"));
    ASSERT_TRUE(watch.watches(3));
    EXPECT_EQ(watch.printed(), load_of("two") + load_of("again")) << "what it leads to is watched";
  });
}

TEST(config_watcher, a_link_to_a_file_that_is_not_there_yet_is_waited_for) {
  in_child([] {
    watcher& watch = new_watcher();
    in_look = [](int look) {
      if (look == 5) write_file("config/next", naming("next"));
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    fs::create_symlink("next", "config/new");
    fs::rename("config/new", kConfigPath);
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.printed(), load_of("next"));
  });
}

TEST(config_watcher, a_link_on_the_way_that_is_replaced_is_a_save) {
  in_child([] {
    watcher& watch = new_watcher();
    const fs::path here = fs::current_path();
    for (const char* version : {"first", "second"}) {
      fs::create_directories(std::string("versions/") + version);
      write_file(std::string("versions/") + version + "/ini", naming(version));
    }
    fs::create_symlink("first", "versions/now");
    fs::remove(kConfigPath);
    fs::create_symlink(here / "versions/now/ini", kConfigPath);
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    fs::create_symlink("second", "versions/next");
    fs::rename("versions/next", "versions/now");
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.printed(), load_of("second"));
  });
}

TEST(config_watcher, what_happens_to_other_names_is_dropped_and_wakes_nothing_else) {
  while_watching([](watcher& watch) {
    for (const char* other : {"config/.server.ini.swp", "config/server.ini~", "config/server.in",
                              "server.ini", "config.new"}) {
      write_file(other, "x");
      fs::rename(other, std::string(other) + "2");
      fs::remove(std::string(other) + "2");
    }
    // Longer than a save is waited for to be whole.
    EXPECT_FALSE(wait_until([&] { return watch.loads() > 0; }, milliseconds(300)));
    EXPECT_EQ(pauses, 0);
    EXPECT_EQ(watch.instances_, 1);
    replace(naming("other"));
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.printed(), load_of("other")) << "they have not dulled it";
  });
}

TEST(config_watcher, a_directory_that_cannot_be_watched_is_done_without) {
  in_child([] {
    watcher& watch = new_watcher();
    const auto watched = faults.inotify_add_watch;
    faults.inotify_add_watch = [=](int fd, const char* path, std::uint32_t events) {
      if ((events & IN_MODIFY) != 0) return watched(fd, path, events);
      errno = ENOSPC;
      return -1;
    };
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    replace(naming("renamed"));
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.printed(), load_of("renamed"));
    EXPECT_EQ(watch.complaints(), "");
  });
}

TEST(config_watcher, a_file_that_is_moved_away_before_its_name_is_watched_is_not_lost) {
  in_child([] {
    watcher& watch = new_watcher();
    const auto watched = faults.inotify_add_watch;
    faults.inotify_add_watch = [=](int fd, const char* path, std::uint32_t events) {
      const int result = watched(fd, path, events);
      static bool moved = false;
      if ((events & IN_MODIFY) != 0 && !moved) {
        moved = true;
        fs::rename(kConfigPath, "config/server.ini~");
        write_file(kConfigPath, naming("between"));
      }
      return result;
    };
    watch.start();
    ASSERT_TRUE(watch.watches(2));
    EXPECT_EQ(watch.printed(), load_of("between"));
  });
}

}  // namespace
