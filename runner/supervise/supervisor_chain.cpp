#include "runner/supervise/supervisor_chain.h"

#include <unistd.h>

#include "runner/file/process_stat.h"

namespace runner {
namespace {

/// How far up a supervisor is looked for.
constexpr int kHighest = 16;

/// @return the process's working directory when it holds run.pid there; empty otherwise.
std::string supervised_directory(pid_t pid) {
  const std::string directory = read_process_link(pid, "cwd");
  const std::string wanted = directory + "/run.pid";
  if (directory.empty() || ::access(wanted.c_str(), F_OK) != 0) return "";
  const bool holds = find_number("/proc/" + std::to_string(pid) + "/fd", [&](int fd) {
    return read_process_link(pid, ("fd/" + std::to_string(fd)).c_str()) == wanted;
  });
  return holds ? directory : "";
}

/// Whether a supervisor that has this process's session is somewhere: it started this process then,
/// and whoever stood between has gone.
bool was_supervised() {
  const pid_t session = ::getsid(0);
  return find_number("/proc", [&](int pid) {
    const auto one = read_process_stat(pid);
    return one && one->session == session && one->threads > 1 &&
           !supervised_directory(one->pid).empty();
  });
}

}  // namespace

supervisor_chain find_supervisor() {
  supervisor_chain chain;
  pid_t below = ::getpid();
  pid_t parent = ::getppid();
  std::vector<known_process> links;
  for (int height = 0; height < kHighest && parent > 1; ++height) {
    const auto above = read_process_stat(parent);
    if (!above) break;
    known_process link(*above);
    // Only a handle that was there before the question says of whom it is.
    const auto still = read_process_stat(below);
    if (!still || still->parent != parent) break;
    chain.directory = supervised_directory(parent);
    if (!chain.directory.empty()) {
      chain.links = std::move(links);
      return chain;
    }
    links.push_back(std::move(link));
    below = parent;
    parent = above->parent;
  }
  chain.broken = was_supervised();
  return chain;
}

}  // namespace runner
