#include "control/commands/wait.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <tuple>

#include "common/misc/unique_fd.h"
#include "control/commands/program_names.h"
#include "control/proc/deadline.h"
#include "control/proc/process_handle.h"
#include "control/site/program_status.h"
#include "control/text/failure.h"
#include "control/text/joined.h"

namespace control {
namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

/// Between a launch, which is announced, and the program's first instruction, which is not.
constexpr milliseconds kLaunching{5};

/// Tells that something happens in the supervisor's directory: the daemon starts or ends, or notes
/// the start or the end of a program in its log.
class site_events final {
 public:
  explicit site_events(const site& place) : fd_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    const std::uint32_t what = IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_TO;
    if (!fd_.valid() || ::inotify_add_watch(fd_.get(), place.directory.c_str(), what) < 0)
      throw failure("cannot watch " + place.directory + ": there are too many watches");
    // Where launchers tell of their programs; not everybody has one.
    const std::string notes = place.directory + "/notify";
    std::ignore = ::inotify_add_watch(fd_.get(), notes.c_str(), IN_MOVED_TO | IN_DELETE);
  }
  [[nodiscard]] int fd() const { return fd_.get(); }
  void clear() const {
    char events[8192];
    while (::read(fd_.get(), events, sizeof events) > 0) {
    }
  }

 private:
  unique_fd fd_;
};

/// At most so many programs are held on to. When one of them ends the others are looked at, too.
constexpr std::size_t kMostHeld = 16;

/// What is known of the programs that are waited for.
struct standing {
  std::vector<std::string> missing;     ///< Not as wanted.
  bool launching = false;               ///< One of them is on its way.
  std::vector<process_handle> running;  ///< Whose end would be a change.
};

standing look(const session& here, const wait_options& options,
              const std::vector<std::string>& names) {
  standing found;
  const snapshot now = here.look();
  require_visible(here, now.search);
  const std::vector<program_status> programs = list_programs(now, here.place);
  for (const std::string& name : names) {
    const running_program* const running = now.find_running(name);
    const bool is_up = std::any_of(programs.begin(), programs.end(), [&](const auto& one) {
      return one.name == name && one.program.has_value();
    });
    const bool is_down = running == nullptr;
    if (options.down ? is_down : is_up) continue;
    found.missing.push_back(name);
    // What a launcher does with its program is announced as well.
    found.launching = found.launching || (!is_up && !is_down && !running->is_launcher);
    if (!is_down && found.running.size() < kMostHeld)
      found.running.emplace_back(here.proc, running->child);
  }
  // A child that has executed nothing yet has no name. It may be the one that is waited for.
  found.launching =
      found.launching || std::any_of(now.running.begin(), now.running.end(),
                                     [](const auto& one) { return one.name.empty(); });
  if (now.search.daemon) found.running.emplace_back(here.proc, *now.search.daemon);
  return found;
}

void sleep_until_something_happens(const site_events& events, const standing& now, int limit) {
  std::vector<pollfd> requests = {{events.fd(), POLLIN, 0}};
  for (const process_handle& one : now.running) {
    // One that has ended already is a change that the last look did not see.
    if (!one.valid()) return;
    requests.push_back({one.fd(), POLLIN, 0});
  }
  const int at_most = static_cast<int>(kLaunching.count());
  if (now.launching) limit = limit < 0 ? at_most : std::min(limit, at_most);
  ::poll(requests.data(), requests.size(), limit);
  events.clear();
}

}  // namespace

int run_wait(const session& here, const wait_options& options) {
  std::optional<steady::time_point> end;
  if (options.timeout) end = steady::now() + *options.timeout;
  const std::vector<std::string> names = pick_programs(here.look(), options.names, false);
  const site_events events(here.place);
  for (;;) {
    const standing now = look(here, options, names);
    if (now.missing.empty()) return exit_status::kDone;
    if (end && steady::now() >= *end) {
      throw failure((options.down ? "still running: " : "not alive: ") + joined(now.missing, ", "));
    }
    sleep_until_something_happens(events, now, end ? poll_time_until(*end) : -1);
  }
}

}  // namespace control
