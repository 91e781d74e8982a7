#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/misc/unique_fd.h"
#include "control/proc/process.h"

namespace control {

/// What identifies a file whatever it is called.
struct file_id {
  dev_t device = 0;
  ino_t inode = 0;

  bool operator==(const file_id&) const = default;
};

/// A file or directory that a process watches with inotify.
struct watched_file {
  file_id id;
  std::uint32_t events = 0;  ///< As for inotify_add_watch.
};

/// The file at `path`, links followed; nothing when there is none.
std::optional<file_id> identify_file(const std::string& path);

/// Reads /proc, or a directory that was recorded from one.
///
/// Every question is answered from the files as they are at that moment. A process that has ended
/// meanwhile, or that this user may not look into, gives the empty answer. May be used by several
/// threads at once.
class proc_dir final {
 public:
  /// @throws std::runtime_error when the directory cannot be opened.
  explicit proc_dir(std::string root = "/proc");

  [[nodiscard]] const std::string& root() const { return root_; }

  /// The ids of all processes, in no order.
  [[nodiscard]] std::vector<pid_t> pids() const;
  /// The process, unless there is none or all of it has ended and only waits to be reaped.
  [[nodiscard]] std::optional<process> find(pid_t pid) const;
  /// Whether the process is still there and is not a later one with the same id.
  [[nodiscard]] bool is_alive(const process& known) const;

  /// The words of its command line.
  [[nodiscard]] std::vector<std::string> command_line(pid_t pid) const;
  /// One variable of the environment that it was started with.
  [[nodiscard]] std::string environment(pid_t pid, const std::string& variable) const;
  /// Where a link such as "cwd" or "exe" leads.
  [[nodiscard]] std::string link(pid_t pid, const char* name) const;
  /// Proportional set size in bytes; the resident size where only that may be seen; 0 when neither.
  [[nodiscard]] std::uint64_t memory(pid_t pid) const;
  /// What of it is in memory, shared or not, in bytes.
  [[nodiscard]] std::uint64_t resident(pid_t pid) const;
  /// The user that it acts as.
  [[nodiscard]] std::optional<uid_t> user(pid_t pid) const;
  /// The groups that it acts for.
  [[nodiscard]] std::vector<gid_t> groups(pid_t pid) const;

  /// How it holds the file open that is, or was, called `path`. Who opens what another user has
  /// made does not count, unless it is root or this process's own user.
  enum class hold { none, present, removed };
  /// @param file what has that name now.
  [[nodiscard]] hold holds(pid_t pid, const std::string& path,
                           const std::optional<file_id>& file) const;
  /// Whether its open files can be looked at.
  [[nodiscard]] bool may_look_into(pid_t pid) const;
  /// What it watches with inotify.
  [[nodiscard]] std::vector<watched_file> watched_files(pid_t pid) const;

  /// Whether the signal has been sent to it and no thread has taken it yet.
  [[nodiscard]] bool is_pending(pid_t pid, int signal) const;
  /// Whether one of its threads would take the signal at once.
  [[nodiscard]] bool lets_in(pid_t pid, int signal) const;

  /// Time since the machine was started.
  [[nodiscard]] std::chrono::duration<double> uptime() const;
  /// When the machine was started, in seconds since 1970.
  [[nodiscard]] std::int64_t boot_time() const;

 private:
  [[nodiscard]] bool is_trusted(pid_t pid, const char* descriptor) const;
  [[nodiscard]] bool read(pid_t pid, const char* name, std::string& out) const;

  std::string root_;
  unique_fd directory_;
};

/// Clock ticks in a second.
[[nodiscard]] double ticks_per_second();

}  // namespace control
