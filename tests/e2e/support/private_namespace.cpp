#include "tests/e2e/support/private_namespace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include "common/misc/unique_fd.h"

namespace private_namespace {
namespace {

constexpr char kMark[] = "KEELMOND_TEST_INSIDE";
/// Exit status of a process that could not enter the namespace.
constexpr int kNotPermitted = 125;

bool write_text(const char* path, const std::string& text) {
  const unique_fd file(::open(path, O_WRONLY | O_CLOEXEC));
  return file.valid() &&
         ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

/// Enters the namespaces; an ordinary user by way of a user namespace in which nobody changes.
bool enter(int namespaces) {
  if (::unshare(namespaces) == 0) return true;
  const std::string user = std::to_string(::geteuid());
  const std::string group = std::to_string(::getegid());
  return ::unshare(CLONE_NEWUSER | namespaces) == 0 && write_text("/proc/self/setgroups", "deny") &&
         write_text("/proc/self/uid_map", user + " " + user + " 1") &&
         write_text("/proc/self/gid_map", group + " " + group + " 1");
}

/// Keeps what is mounted from now on from everybody else.
bool keep_mounts() {
  return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool mount_proc() {
  return keep_mounts() &&
         ::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0;
}

/// Reaps until `child` has ended. @return its exit status as a shell would tell it.
int wait_for(pid_t child) {
  int status = 0;
  for (;;) {
    const pid_t ended = ::waitpid(-1, &status, 0);
    if (ended == child) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (ended < 0 && errno != EINTR) return kNotPermitted;
  }
}

/// The first process of the namespace. When it ends, the kernel ends all others.
[[noreturn]] void be_init(char** argv) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (!mount_proc()) ::_exit(kNotPermitted);
  const pid_t tests = ::fork();
  if (tests == 0) {
    ::setenv(kMark, "1", 1);
    ::execv("/proc/self/exe", argv);
    ::_exit(kNotPermitted);
  }
  ::_exit(tests > 0 ? wait_for(tests) : kNotPermitted);
}

[[noreturn]] void be_entrance(char** argv) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  // A test that has no process id to signal may signal 0 instead, and a process group reaches out
  // of the namespace: to CTest, and to whoever runs it.
  ::setpgid(0, 0);
  if (!enter(CLONE_NEWPID | CLONE_NEWNS)) ::_exit(kNotPermitted);
  const pid_t init = ::fork();
  if (init == 0) be_init(argv);
  ::_exit(init > 0 ? wait_for(init) : kNotPermitted);
}

}  // namespace

bool is_inside() {
  return std::getenv(kMark) != nullptr;
}

bool enter_own_mounts() {
  return enter(CLONE_NEWNS) && keep_mounts();
}

std::optional<int> run_again(char** argv) {
  const pid_t entrance = ::fork();
  if (entrance < 0) return std::nullopt;
  if (entrance == 0) be_entrance(argv);
  const int status = wait_for(entrance);
  if (status == kNotPermitted) return std::nullopt;
  return status;
}

}  // namespace private_namespace
