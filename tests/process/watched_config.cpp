#include "tests/process/watched_config.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>

#include "common/misc/unique_fd.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/server_ini.h"
#include "tests/support/wait_until.h"
#include "tests/support/watch_pause.h"

std::function<void()> in_pause;
std::atomic<int> pauses{0};
std::function<void(int)> in_look;
std::atomic<int> looks{0};

watcher::watcher() {
  std::filesystem::create_directory("config");
  write_file(kConfigPath, "[keelmond]\n");
  count_watches();
}

watcher::~watcher() {
  if (thread_.joinable()) thread_.detach();
}

void watcher::start() {
  thread_ = std::thread([this] {
    monitorServerConfig(kConfigPath);
    gave_up_ = true;
  });
}

bool watcher::watches(int number) {
  return wait_until([&] { return watches_ == number && waits_at_ == number; });
}

bool watcher::loaded(std::size_t count) {
  return wait_until([&] { return loads() == count; });
}

bool watcher::end() {
  std::filesystem::remove(kConfigPath);
  const bool ended = wait_until([&] { return gave_up_.load(); });
  if (ended) thread_.join();
  return ended;
}

void watcher::count_watches() {
  faults.inotify_init1 = [this](int flags) {
    ++instances_;
    EXPECT_EQ(flags, IN_CLOEXEC);
    return real::inotify_init1(flags);
  };
  faults.inotify_add_watch = [this](int fd, const char* path, std::uint32_t events) {
    const int watch = real::inotify_add_watch(fd, path, events);
    if ((events & IN_MODIFY) == 0) return watch;
    EXPECT_EQ(events, std::uint32_t{IN_MODIFY});
    EXPECT_STREQ(path, "./config/server.ini");
    if (watch != -1) ++watches_;
    return watch;
  };
  faults.inotify_rm_watch = [this](int fd, int watch) {
    ++removed_;
    loads_at_removal_ = loads();
    return real::inotify_rm_watch(fd, watch);
  };
  // An endless wait is the one for an event.
  faults.ppoll = [this](pollfd* requests, nfds_t count, const timespec* limit,
                        const sigset_t* mask) {
    if (limit == nullptr) waits_at_ = watches_.load();
    if (watch_pause::matches(requests, limit)) {
      ++pauses;
      if (in_pause) in_pause();
      return 0;
    }
    if (requests != nullptr && requests->fd == -1 && limit != nullptr) {
      const int look = ++looks;
      if (in_look) in_look(look);
    }
    return real::ppoll(requests, count, limit, mask);
  };
}

watcher& new_watcher() {
  return *new watcher;
}

void while_watching(const std::function<void(watcher&)>& body) {
  in_child([&] {
    watcher& watch = new_watcher();
    watch.start();
    ASSERT_TRUE(watch.watches(1));
    body(watch);
  });
}

std::string cannot_watch(const std::string& reason, const std::string& path) {
  return "inotify_add_watch: " + reason + "\nkeelmond: " + path +
         " cannot be watched, so keelmond shuts down. It has to be there, and user " +
         std::to_string(::geteuid()) +
         " has to be able to read and write it and to enter its directory (" + reason +
         "). run.pid stays and blocks the next start\n";
}

void append(std::string_view text) {
  const unique_fd file(::open(kConfigPath, O_WRONLY | O_APPEND | O_CLOEXEC));
  EXPECT_EQ(::write(file.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void modify() {
  append("#\n");
}

void replace(const std::string& text) {
  write_file("config/new", text);
  std::filesystem::rename("config/new", kConfigPath);
}

std::string naming(const std::string& name) {
  return server_ini({{name, "/bin/true", "stop"}});
}

std::string load_of(const std::string& name) {
  return golden::kLoad + golden::read_entry(name) + "monitor " + name + " stopped 333.\r\n";
}
