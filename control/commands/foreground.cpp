#include "control/commands/foreground.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <thread>

#include "common/misc/poll_until.h"
#include "common/misc/unique_fd.h"
#include "control/commands/down.h"
#include "control/commands/reload.h"
#include "control/proc/process_handle.h"
#include "control/text/failure.h"

namespace control {
namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

/// How long programs that were left over are given to end by themselves.
constexpr milliseconds kGrace{5000};
/// A daemon that is killed sooner than this is not started again at once.
constexpr milliseconds kLived{1000};

sigset_t own_signals() {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD})
    ::sigaddset(&set, signal);
  return set;
}

/// Whether one of its signals waits that ends it.
bool is_told_to_end() {
  sigset_t waiting;
  ::sigpending(&waiting);
  return ::sigismember(&waiting, SIGTERM) == 1 || ::sigismember(&waiting, SIGINT) == 1;
}

/// Tells the process that started this one what state it is in, if it wants to know.
void notify(std::string_view state) {
  const char* const path = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path == nullptr || *path == '\0' || std::strlen(path) >= sizeof address.sun_path) return;
  std::strcpy(address.sun_path, path);
  // A name that begins with "@" is an abstract one, which begins with a zero.
  if (address.sun_path[0] == '@') address.sun_path[0] = '\0';
  const unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
  ::sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address), size);
}

/// Waits on the daemon's behalf.
class watch_over final {
 public:
  watch_over(const session& here, const up_options& options)
      : here_(here), options_(options), signals_(make_signals()) {}

  int run();

 private:
  enum class event { none, stop, reload, gone };

  static unique_fd make_signals() {
    const sigset_t set = own_signals();
    unique_fd fd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd.valid()) throw failure(std::string("cannot wait for signals: ") + std::strerror(errno));
    return fd;
  }

  void start(milliseconds limit);
  void reap();
  void await_last_thread();
  event next();
  void reload() const;
  int shut_down();
  std::optional<int> after_end();
  void start_again();

  const session& here_;
  const up_options& options_;
  unique_fd signals_;
  process daemon_;
  std::optional<process_handle> handle_;
  /// How the daemon ended, once it was reaped.
  std::optional<int> status_;
  steady::time_point found_at_;
};

void watch_over::start(milliseconds limit) {
  daemon_ = ensure_daemon(here_, limit, options_.as_root);
  handle_.emplace(here_.proc, daemon_);
  status_.reset();
  found_at_ = steady::now();
  try {
    // Programs that cannot be started are no reason to leave those that can.
    wait_for_programs(here_, limit, is_told_to_end);
  } catch (const failure&) {
    // The daemon has ended, as `next` tells when its last thread has gone. Or something is wrong.
    if (!handle_->wait_end(kGrace)) throw;
  }
}

void watch_over::reap() {
  int status = 0;
  for (pid_t ended; (ended = ::waitpid(-1, &status, WNOHANG)) > 0;) {
    if (ended == daemon_.pid) status_ = status;
  }
}

/// A daemon that was killed counts as ended before its last thread is gone, and until then that
/// thread's children count as its own: what it left running would not be found.
void watch_over::await_last_thread() {
  poll_until(kGrace, milliseconds(1), [this] {
    reap();
    return status_ || ::kill(daemon_.pid, 0) != 0;
  });
}

watch_over::event watch_over::next() {
  pollfd requests[] = {{signals_.get(), POLLIN, 0}, {handle_->fd(), POLLIN, 0}};
  ::poll(requests, 2, handle_->valid() ? -1 : 0);
  reap();
  signalfd_siginfo signal{};
  while (::read(signals_.get(), &signal, sizeof signal) == sizeof signal) {
    if (signal.ssi_signo == SIGHUP) return event::reload;
    if (signal.ssi_signo != SIGCHLD) return event::stop;
  }
  return handle_->has_ended() ? event::gone : event::none;
}

void watch_over::reload() const {
  try {
    run_reload(here_, {});
  } catch (const failure& why) {
    warn(here_, why.what());
  }
}

int watch_over::shut_down() {
  notify("STOPPING=1");
  const int status = run_down(here_, {options_.timeout, true});
  reap();
  return status;
}

/// @return the exit status, or nothing when the daemon was started again.
std::optional<int> watch_over::after_end() {
  await_last_thread();
  // A daemon that somebody else started before is not ours to reap; what it left behind tells.
  const bool asked = status_ ? WIFEXITED(*status_) : !here_.look().search.pid_file;
  if (asked) {
    stop_left_over(here_, here_.look(), kGrace);
    const daemon_search left = here_.look().search;
    if (left.pid_file && !left.daemon) {
      warn(here_,
           "keelmond has ended without SIGUSR2: see whether it can read config/server.ini, and "
           "console.txt");
      return exit_status::kFailed;
    }
    say("keelmond has ended");
    return exit_status::kDone;
  }
  warn(here_,
       "keelmond (PID " + std::to_string(daemon_.pid) + ") was killed" +
           (status_ && WIFSIGNALED(*status_) ? " by signal " + std::to_string(WTERMSIG(*status_))
                                             : std::string()));
  if (!options_.restart) {
    stop_left_over(here_, here_.look(), kGrace);
    return exit_status::kFailed;
  }
  start_again();
  return std::nullopt;
}

void watch_over::start_again() {
  if (steady::now() - found_at_ < kLived) std::this_thread::sleep_for(kLived);
  start(std::max(options_.timeout, kGrace));
}

int watch_over::run() {
  start(options_.timeout);
  if (!is_told_to_end()) notify("READY=1");
  for (;;) {
    switch (next()) {
      case event::stop:
        return shut_down();
      case event::reload:
        reload();
        break;
      case event::gone:
        if (const auto status = after_end()) return *status;
        break;
      case event::none:
        break;
    }
  }
}

/// Has orphans below this process handed to it, and its signals wait for `watch_over`.
void become_reaper() {
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  const sigset_t set = own_signals();
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
}

}  // namespace

int stay_with_daemon(const session& here, const up_options& options) {
  become_reaper();
  return watch_over(here, options).run();
}

}  // namespace control
