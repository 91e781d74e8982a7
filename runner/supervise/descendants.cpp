#include "runner/supervise/descendants.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "common/misc/small_file.h"
#include "runner/file/process_stat.h"
#include "runner/file/values.h"
#include "runner/file/words.h"

namespace runner {
namespace {

std::vector<process_stat> members_of(pid_t session) {
  std::vector<process_stat> members;
  find_number("/proc", [&](int pid) {
    const auto one = read_process_stat(pid);
    if (one && one->session == session) members.push_back(*one);
    return false;
  });
  return members;
}

}  // namespace

std::vector<pid_t> own_children() {
  const std::string pid = std::to_string(::getpid());
  std::string text;
  std::vector<pid_t> children;
  if (!read_small_file(AT_FDCWD, ("/proc/self/task/" + pid + "/children").c_str(), text)) {
    // A kernel that keeps no such list.
    find_number("/proc", [&](int other) {
      const auto one = read_process_stat(other);
      if (one && one->parent == ::getpid()) children.push_back(other);
      return false;
    });
    return children;
  }
  for (const std::string& word : split_names(text)) {
    if (const auto child = parse_count(word)) children.push_back(static_cast<pid_t>(*child));
  }
  return children;
}

void kill_session(pid_t session, std::uint64_t started) {
  constexpr int kRounds = 500;
  constexpr int kRound = 10;
  if (session <= 1 || session == ::getsid(0)) return;
  for (int round = 0; round < kRounds; ++round) {
    bool is_left = false;
    for (const process_stat& one : members_of(session)) {
      // Somebody else's session by now.
      if (one.pid == session && one.started != started) return;
      is_left = ::kill(one.pid, SIGKILL) == 0 || is_left;
    }
    if (!is_left) return;
    ::poll(nullptr, 0, kRound);
  }
}

}  // namespace runner
