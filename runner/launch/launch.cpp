#include "runner/launch/launch.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "runner/launch/environment.h"

namespace runner {
namespace {

/// All that the new process needs, put together before the fork.
struct prepared {
  const launch_order& order;
  std::vector<std::string> candidates;  ///< Where the command may be.
  std::vector<char*> arguments;
  std::vector<char*> environment;
  const char* name;  ///< That the process is to have, without directories.
  bool changes_identity;
  pid_t launcher;
};

std::vector<char*> pointers_to(const std::vector<std::string>& texts) {
  std::vector<char*> list;
  list.reserve(texts.size() + 1);
  // The system takes what it does not change by pointers to what it might change.
  for (const std::string& text : texts)
    list.push_back(const_cast<char*>(text.c_str()));
  list.push_back(nullptr);
  return list;
}

/// The command itself when it has a "/"; else it in each directory of PATH.
std::vector<std::string> find_candidates(const std::string& command, const std::string& path) {
  if (command.find('/') != std::string::npos) return {command};
  std::vector<std::string> candidates;
  for (std::size_t at = 0; at <= path.size();) {
    const std::size_t end = std::min(path.find(':', at), path.size());
    if (end > at) candidates.push_back(path.substr(at, end - at) + "/" + command);
    at = end + 1;
  }
  return candidates;
}

/// The end of the command's path, which lives as long as that.
const char* name_of(const std::string& command) {
  // All of it, when there is no "/".
  return command.c_str() + (command.rfind('/') + 1);
}

/// The effective group of this process and its supplementary ones.
std::vector<gid_t> own_groups() {
  std::vector<gid_t> groups(static_cast<std::size_t>(std::max(::getgroups(0, nullptr), 0)));
  const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
  groups.resize(static_cast<std::size_t>(std::max(count, 0)));
  groups.push_back(::getegid());
  return groups;
}

/// Whether this process has all groups that the file lists. One that comes with the account may
/// have been given to that later, and is not asked for.
bool has_named_groups(const identity& who) {
  if (!who.are_groups_named) return true;
  const std::vector<gid_t> own = own_groups();
  return std::all_of(who.groups.begin(), who.groups.end(), [&](gid_t wanted) {
    return std::find(own.begin(), own.end(), wanted) != own.end();
  });
}

bool is_already(const identity& who) {
  const bool same_user = !who.uid || (*who.uid == ::getuid() && *who.uid == ::geteuid());
  const bool same_group = !who.gid || (*who.gid == ::getgid() && *who.gid == ::getegid());
  return same_user && same_group && has_named_groups(who);
}

bool has_to_change(const identity& who) {
  if (!who.uid && !who.gid) return false;
  // Whoever is nobody else already, and not root, needs no power for it.
  return ::geteuid() == 0 || !is_already(who);
}

[[noreturn]] void fail(int report, launch_step step, std::size_t limit = 0) {
  const launch_failure failure{step, errno, static_cast<unsigned char>(limit)};
  if (::write(report, &failure, sizeof failure) < 0) {
    // The launcher has gone.
  }
  ::_exit(127);
}

void reset_signals() {
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number)
    ::sigaction(number, &standard, nullptr);
}

void set_descriptors(const launch_order& order, int report) {
  const unique_fd nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (::dup2(nothing.get(), STDIN_FILENO) < 0) fail(report, launch_step::descriptors);
  // Both may be 1 or 2 already, also crosswise.
  const unique_fd errors(::fcntl(order.errors, F_DUPFD_CLOEXEC, 3));
  if (order.output != STDOUT_FILENO && ::dup2(order.output, STDOUT_FILENO) < 0)
    fail(report, launch_step::descriptors);
  if (::dup2(errors.get(), STDERR_FILENO) < 0) fail(report, launch_step::descriptors);
}

bool write_text(const char* path, const char* text) {
  const unique_fd file(::open(path, O_WRONLY | O_CLOEXEC));
  return file.valid() && ::write(file.get(), text, std::strlen(text)) >= 0;
}

void set_power(const launch_order& order, int report) {
  const program_section& wanted = order.file.program;
  if (wanted.nice && ::setpriority(PRIO_PROCESS, 0, *wanted.nice) != 0)
    fail(report, launch_step::nice);
  if (wanted.oom_score) {
    char text[16];
    std::snprintf(text, sizeof text, "%d", *wanted.oom_score);
    if (!write_text("/proc/self/oom_score_adj", text)) fail(report, launch_step::oom_score);
  }
  if (!order.group_entrance.empty() && !write_text(order.group_entrance.c_str(), "0"))
    fail(report, launch_step::control_group);
  const auto& limits = order.file.limits.resources;
  for (std::size_t i = 0; i < limits.size(); ++i) {
    // The type of the first parameter is the C library's own affair.
    const auto resource = static_cast<decltype(RLIMIT_NOFILE)>(limits[i].resource);
    if (::setrlimit(resource, &limits[i].value) != 0) fail(report, launch_step::limit, i);
  }
}

void set_identity(const identity& who, int report) {
  if (::setgroups(who.groups.size(), who.groups.data()) != 0) fail(report, launch_step::groups);
  if (who.gid && ::setresgid(*who.gid, *who.gid, *who.gid) != 0) fail(report, launch_step::group);
  if (!who.uid) return;
  if (::setresuid(*who.uid, *who.uid, *who.uid) != 0) fail(report, launch_step::user);
  // For good: a way back would be a way back for whoever takes the program over.
  if (*who.uid != 0 && (::setuid(0) == 0 || ::seteuid(0) == 0)) {
    errno = EPERM;
    fail(report, launch_step::user);
  }
}

void execute(const prepared& ready, int report) {
  int error = ENOENT;
  for (const std::string& one : ready.candidates) {
    ::execve(one.c_str(), ready.arguments.data(), ready.environment.data());
    // One that is there and cannot be executed says more than one that is not there.
    if (errno != ENOENT && errno != ENOTDIR) error = errno;
  }
  errno = error;
  fail(report, launch_step::command);
}

[[noreturn]] void become_program(const prepared& ready, int report) {
  const program_section& wanted = ready.order.file.program;
  // Before all else: with the launcher's name it would be found, and signalled, in its place.
  ::prctl(PR_SET_NAME, ready.name);
  ::setsid();
  reset_signals();
  set_descriptors(ready.order, report);
  ::umask(wanted.umask);
  set_power(ready.order, report);
  if (::chdir(wanted.directory.c_str()) != 0) fail(report, launch_step::directory);
  if (ready.changes_identity) set_identity(wanted.who, report);
  // After the user, whose change makes the kernel forget it.
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) fail(report, launch_step::death_signal);
  if (::getppid() != ready.launcher) ::_exit(127);
  if (wanted.no_new_privileges && ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
    fail(report, launch_step::privileges);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  execute(ready, report);
  ::_exit(127);
}

/// Where what is wrong stands in the file.
struct place_in_file {
  const char* section;
  std::string key;
  std::string text;
};

/// The first of some keys that the file has; else the first of them.
std::string first_key(const program_file& file, const char* section,
                      std::initializer_list<const char*> keys) {
  const auto* const found = std::find_if(
      keys.begin(), keys.end(), [&](const char* key) { return file.line_of(section, key) > 0; });
  return found == keys.end() ? *keys.begin() : *found;
}

std::string key_of_limit(const program_file& file, std::size_t number) {
  const std::size_t line = file.limits.resources[number].line;
  const auto found =
      std::find_if(file.stated.begin(), file.stated.end(),
                   [&](const program_file::setting& one) { return one.line == line; });
  return found == file.stated.end() ? "" : found->key;
}

place_in_file place_of(const launch_failure& failure, const launch_order& order) {
  const program_file& file = order.file;
  switch (failure.step) {
    case launch_step::nice:
      return {"program", "nice", "cannot set it"};
    case launch_step::oom_score:
      return {"program", "oom_score", "cannot set it"};
    case launch_step::directory:
      // Without a key it is where the file is, and nothing but the command says that it is needed.
      if (file.line_of("program", "directory") == 0)
        return {order.section, order.key, "cannot enter " + file.program.directory};
      return {"program", "directory", "cannot enter " + file.program.directory};
    case launch_step::groups:
      return {"program", first_key(file, "program", {"groups", "group", "user"}),
              "cannot have its groups"};
    case launch_step::group:
      return {"program", first_key(file, "program", {"group", "user"}), "cannot become that group"};
    case launch_step::user:
      return {"program", "user", "cannot become that user"};
    case launch_step::privileges:
      return {"program", "no_new_privileges", "cannot set it"};
    case launch_step::limit:
      return {"limits", key_of_limit(file, failure.limit), "cannot set it"};
    case launch_step::control_group:
      return {"limits", first_key(file, "limits", {"memory", "cpu", "tasks"}),
              "cannot enter the control group"};
    case launch_step::command:
      return {order.section, order.key, "cannot execute " + order.words.front()};
    default:
      return {order.section, order.key, "cannot start it"};
  }
}

}  // namespace

launched launch(const launch_order& order) {
  const prepared ready{order,
                       find_candidates(order.words.front(), variable_of(order.environment, "PATH")),
                       pointers_to(order.words),
                       pointers_to(order.environment),
                       name_of(order.words.front()),
                       has_to_change(order.file.program.who),
                       ::getpid()};
  launched result;
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    result.failure = {launch_step::process, errno, 0};
    return result;
  }
  result.report.reset(ends[0]);
  const unique_fd write_end(ends[1]);
  result.pid = ::fork();
  if (result.pid == 0) become_program(ready, write_end.get());
  if (result.pid < 0) result.failure = {launch_step::process, errno, 0};
  return result;
}

launch_failure read_report(int report) {
  launch_failure failure;
  const ssize_t got = ::read(report, &failure, sizeof failure);
  if (got != static_cast<ssize_t>(sizeof failure)) return {};
  return failure;
}

file_finding describe(const launch_failure& failure, const launch_order& order) {
  const place_in_file place = place_of(failure, order);
  const bool is_power = failure.step == launch_step::nice || failure.step == launch_step::oom_score;
  // Root itself is refused what nobody may do, such as a limit above that of the kernel.
  const bool needs_root =
      ::geteuid() != 0 && ((failure.error == EPERM && failure.step != launch_step::command) ||
                           (failure.error == EACCES && is_power));
  return {order.file.line_of(place.section, place.key), place.key,
          place.text + ": " + std::strerror(failure.error),
          needs_root ? "only a supervisor that runs as root may do that" : ""};
}

}  // namespace runner
