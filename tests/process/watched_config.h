#pragma once

#include <poll.h>
#include <sys/inotify.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "process/config_watcher.h"
#include "tests/process/supervision.h"

/// What a test does in the watcher's pause, on its thread, and how many there have been.
extern std::function<void()> in_pause;
extern std::atomic<int> pauses;

/// The same for the short waits in which the watcher looks at a save that is not whole yet, or at a
/// file that is absent. The function gets the number of the wait, from 1.
extern std::function<void(int)> in_look;
extern std::atomic<int> looks;

/// The watcher of ./config/server.ini in the process of a test. Each load of the configuration,
/// which names no program, prints a line. A pause takes no time.
class watcher final {
 public:
  watcher();

  /// Runs it as the supervisor does, on another thread than the caller's.
  void start();
  /// Waits until the file is watched for the `number`th time, and the watcher waits.
  bool watches(int number);
  [[nodiscard]] std::size_t loads() const { return count(world_.printed(), golden::kLoad); }
  bool loaded(std::size_t count);
  /// Deletes the file, upon which it gives up, and waits for its end.
  bool end();
  [[nodiscard]] std::string printed() const { return world_.printed(); }
  [[nodiscard]] std::string complaints() const { return world_.complaints(); }

  ~watcher();
  watcher(const watcher&) = delete;
  watcher& operator=(const watcher&) = delete;

  std::atomic<int> watches_{0};
  std::atomic<int> removed_{0};
  std::atomic<int> instances_{0};
  std::atomic<std::size_t> loads_at_removal_{0};

 private:
  void count_watches();

  const supervision& world_ = supervision::begin();
  std::thread thread_;
  std::atomic<int> waits_at_{0};
  std::atomic<bool> gave_up_{false};
};

/// A watcher that the process keeps until it ends, since its thread may, too.
watcher& new_watcher();

/// Runs `body` in a process of its own (see `in_child`), in which the file is being watched.
void while_watching(const std::function<void(watcher&)>& body);

/// What is on standard error when the file cannot be watched.
std::string cannot_watch(const std::string& reason,
                         const std::string& path = "./config/server.ini");

/// Writes to the end of the file.
void append(std::string_view text);
/// Modifies the file in place, without emptying it.
void modify();
/// Puts another file in its place, by renaming.
void replace(const std::string& text);

/// A configuration whose load prints a line with the name.
std::string naming(const std::string& name);
/// What its load prints.
std::string load_of(const std::string& name);
