#include "process/child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <string>
#include <utility>

#include "common/misc/bounded_text.h"
#include "common/misc/fun_misc.h"
#include "common/misc/unique_fd.h"
#include "common/thread/detached_thread.h"
#include "common/thread/event_count.h"
#include "common/thread/inbox.h"
#include "common/thread/stack_size.h"
#include "common/thread/unforked_memory.h"
#include "process/program_tree.h"
#include "process/supervisor_signals.h"

namespace child {
namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

/// One child that a thread waits for. It lies on that thread's stack.
struct request {
  const char* command;
  /// Where a command reports its end; -1 for a program.
  int report;
  request* next = nullptr;
  /// What the fork returned, and errno after it. Written before `served` advances, read after it.
  pid_t child = -1;
  int error = 0;
  event_count served{};
};

/// What the thread that forks has to do.
[[gnu::section("unforked")]] constinit unforked_memory::static_object<inbox<request>> g_requests;

/// Written by `start`, read by every thread; whoever reads it was started later.
std::atomic<bool> running{false};

std::atomic<bool> refuses_programs{false};

/// The thread that waits goes on as soon as the count has changed, and the request is gone.
void answer(request& served, pid_t child, int error = 0) noexcept {
  served.error = error;
  served.child = child;
  served.served.advance();
}

/// Forks, from the thread whose stack the child gets. Everything that it needs is put there first.
void serve(request& wanted) noexcept {
  char command[kCommandSize];
  copy_bounded(command, wanted.command);
  char directory[kCommandSize] = {};
  const bool is_program = wanted.report < 0;
  if (is_program && refuses_programs.load()) {
    answer(wanted, 0);
    return;
  }
  if (is_program) Tfun_misc::get_filename_path(command, directory, true);
  const child_path::plan plan{command, directory,
                              is_program ? &supervisor_signals::start_mask() : nullptr,
                              &supervisor_signals::start_quit(), wanted.report};
  const pid_t child = child_path::fork_bare();
  if (child == 0) child_path::run(plan);
  const int error = errno;
  // The child does the same. Whoever comes first, it can be killed with its group from here on.
  if (!is_program && child > 0) ::setpgid(child, child);
  answer(wanted, child, error);
}

/// What the thread that forks runs on, and each child as well. Among the static data, which the
/// children have anyway: in a mapping of its own it would cost each of them another table of pages.
/// From a page's beginning, so that a fork copies nothing else that is written here.
alignas(unforked_memory::kPageSize) constinit std::array<std::byte, kForkingStack> g_stack{};

void* serve_all(void* /*unused*/) {
  g_requests->serve_for_ever(serve);
}

/// Has the thread that forks make a child.
/// @return as `start_program`.
pid_t fork_child(const char* command, int report) noexcept {
  if (std::char_traits<char>::length(command) >= kCommandSize) {
    errno = E2BIG;
    return -1;
  }
  if (!running.load()) {
    errno = EAGAIN;
    return -1;
  }
  request own{command, report};
  g_requests->push(own);
  own.served.await_change(0);
  errno = own.error;
  return own.child;
}

struct pipe_ends {
  unique_fd read;
  unique_fd write;
};

pipe_ends make_pipe() noexcept {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) return {};
  return {unique_fd(ends[0]), unique_fd(ends[1])};
}

/// Waits until something can be read. @return false when the child has to be given up.
bool await_readable(int fd, steady::time_point end, bool (*must_hurry)()) noexcept {
  constexpr milliseconds kLook{50};
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(end - steady::now());
    const auto wait = std::clamp(left, milliseconds::zero(), kLook);
    pollfd request{fd, POLLIN, 0};
    if (::poll(&request, 1, static_cast<int>(wait.count())) > 0) return true;
    if (left <= milliseconds::zero() || must_hurry()) return false;
  }
}

/// Takes the child's report, which one that was killed does not write, and waits until its
/// descriptors are closed: nothing can stop it any more then.
/// @return false when the child has to be given up.
bool take_report(int fd, child_path::shell_end& report, milliseconds limit,
                 bool (*must_hurry)()) noexcept {
  const auto end = steady::now() + limit;
  do {
    if (!await_readable(fd, end, must_hurry)) return false;
  } while (::read(fd, &report, sizeof report) > 0);
  return true;
}

/// Nobody but the child holds the other end of the pipe, so while that is open the process id is
/// the child's. Stopped first: a shell whose `pgrep` is killed would go on with half of its output.
void kill_with_all_it_started(pid_t child) noexcept {
  ::kill(-child, SIGSTOP);
  program_tree::signal_by_name(child, ".", SIGKILL);
  ::kill(-child, SIGKILL);
}

}  // namespace

bool start() noexcept {
  if (!running.load()) running.store(start_detached_thread(serve_all, g_stack));
  return running.load();
}

pid_t start_program(const char* command) noexcept {
  return fork_child(command, -1);
}

void refuse_programs() noexcept {
  refuses_programs.store(true);
}

command_end run_command(const char* command, milliseconds limit, bool (*must_hurry)()) noexcept {
  constexpr command_end kNotStarted{outcome::not_started, -1, -1};
  if (must_hurry()) return kNotStarted;
  pipe_ends report = make_pipe();
  if (!report.read.valid()) return kNotStarted;
  const pid_t child = fork_child(command, report.write.get());
  report.write.reset();
  if (child <= 0) return kNotStarted;
  child_path::shell_end end{-1, -1};
  if (!take_report(report.read.get(), end, limit, must_hurry)) {
    kill_with_all_it_started(child);
    return {outcome::given_up, -1, -1};
  }
  // Where the kernel reaps children, it is gone before this.
  while (::waitpid(child, nullptr, 0) == -1 && errno == EINTR) {
  }
  return {end.status == -1 ? outcome::not_started : outcome::ended, end.result, end.status};
}

}  // namespace child
