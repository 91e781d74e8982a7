#include "tests/e2e/support/children.h"

#include <sys/prctl.h>
#include <sys/wait.h>

#include <map>

#include "tests/support/wait_until.h"

namespace children {
namespace {

std::map<pid_t, int>& ends() {
  static std::map<pid_t, int> statuses;
  return statuses;
}

void reap() {
  int status = 0;
  for (pid_t ended = 0; (ended = ::waitpid(-1, &status, WNOHANG)) > 0;)
    ends()[ended] = status;
}

}  // namespace

void adopt_orphans() {
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
}

std::optional<int> status_of(pid_t pid) {
  reap();
  const auto found = ends().find(pid);
  if (found == ends().end()) return std::nullopt;
  return found->second;
}

std::optional<int> wait_for_end(pid_t pid, std::chrono::milliseconds limit) {
  if (!wait_until([pid] { return status_of(pid).has_value(); }, limit)) return std::nullopt;
  const int status = ends()[pid];
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void announce(pid_t pid) {
  ends().erase(pid);
}

}  // namespace children
