#include "control/site/snapshot.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace control {
namespace {

/// As much of the log as is looked through for what was launched last.
constexpr std::int64_t kRecentLog = std::int64_t{1} << 20;
/// The log has seconds, and its line is written a moment after the start.
constexpr std::int64_t kLogTolerance = 2;

void read_programs_of(const site& place, snapshot& out) {
  out.config = read_config(place.config_file());
  if (!out.config) {
    out.config_error = errno;
    return;
  }
  out.programs = merge_repeated(read_programs(parse_config(out.config->text), place.directory));
}

}  // namespace

bool has_other_user(const snapshot& now) {
  return now.daemon_user && *now.daemon_user != ::geteuid();
}

bool daemon_may(const snapshot& now, const std::string& path, const struct stat& status,
                mode_t what) {
  constexpr unsigned kOwner = 6;
  constexpr unsigned kGroup = 3;
  const std::vector<gid_t>& groups = now.daemon_groups;
  const bool has_list = ::getxattr(path.c_str(), "system.posix_acl_access", nullptr, 0) > 0;
  if (now.daemon_user == uid_t{0} || has_list) return true;
  const bool is_group = std::find(groups.begin(), groups.end(), status.st_gid) != groups.end();
  const unsigned shift = now.daemon_user == status.st_uid ? kOwner : is_group ? kGroup : 0;
  return (status.st_mode >> shift & what) == what;
}

bool counts_as_empty(const snapshot& now, const site& place) {
  if (!now.config) return false;
  return has_other_user(now) ? !daemon_may(now, place.config_file(), now.config->status, S_IWOTH)
                             : ::access(place.config_file().c_str(), W_OK) != 0;
}

config_watch look_at_watch(const proc_dir& proc, const process& daemon, const site& place) {
  const auto file = identify_file(place.config_file());
  const auto directory = identify_file(place.directory + "/config");
  config_watch found;
  for (const watched_file& watched : proc.watched_files(daemon.pid)) {
    // By the inode alone: on some file systems the device has one number here and another there.
    const bool is_file = file && watched.id.inode == file->inode;
    const bool is_directory = directory && watched.id.inode == directory->inode;
    found.file = found.file || is_file;
    found.name = found.name || is_directory;
    // Only files are watched for writes; directories are watched for names.
    found.other = found.other || (!is_file && watched.events == IN_MODIFY);
  }
  return found;
}

double snapshot::age_of(const process& one) const {
  return std::max(uptime - static_cast<double>(one.started) / ticks_per_second(), 0.0);
}

std::int64_t snapshot::start_of(const process& one) const {
  return boot_time +
         static_cast<std::int64_t>(static_cast<double>(one.started) / ticks_per_second());
}

const listed_program* snapshot::find(const std::string& name) const {
  const auto at = std::find_if(programs.begin(), programs.end(),
                               [&](const listed_program& one) { return one.name == name; });
  return at == programs.end() ? nullptr : &*at;
}

const running_program* snapshot::find_running(const std::string& name) const {
  const auto at = std::find_if(running.begin(), running.end(),
                               [&](const running_program& one) { return one.name == name; });
  return at == running.end() ? nullptr : &*at;
}

bool is_launched_by_log(const std::vector<log_event>& events, const process& child,
                        std::int64_t started) {
  return std::any_of(events.begin(), events.end(), [&](const log_event& event) {
    return event.what == log_event::kind::launched && event.pid == child.pid &&
           std::abs(seconds_of(event) - started) <= kLogTolerance;
  });
}

snapshot look_at(const proc_dir& proc, const site& place) {
  snapshot now;
  read_programs_of(place, now);
  const process_table table(proc);
  now.uptime = proc.uptime().count();
  now.boot_time = proc.boot_time();
  now.search = find_daemon(proc, table, place);
  const program_finder finder(proc, table, now.programs);
  if (now.search.daemon) {
    now.running = finder.below(*now.search.daemon);
    now.daemon_user = proc.user(now.search.daemon->pid);
    now.daemon_groups = proc.groups(now.search.daemon->pid);
  }

  // The log is long, and most of the time nothing is left over.
  std::optional<std::vector<log_event>> events;
  now.left_over = finder.left_over(place.directory, [&](const process& child) {
    if (!events) events = read_last_events(place.log_file(), kRecentLog);
    return is_launched_by_log(*events, child, now.start_of(child));
  });
  if (now.search.daemon) now.watch = look_at_watch(proc, *now.search.daemon, place);
  return now;
}

}  // namespace control
