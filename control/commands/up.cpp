#include "control/commands/up.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "common/misc/poll_until.h"
#include "control/commands/foreground.h"
#include "control/config/config_save.h"
#include "control/site/daemon_start.h"
#include "control/site/program_status.h"
#include "control/site/stopping.h"
#include "control/text/failure.h"
#include "runner/file/accounts.h"

namespace control {
namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

constexpr milliseconds kLookEvery{10};

void require_config(const session& here, const snapshot& now) {
  if (now.config && !now.search.daemon && ::access(here.place.config_file().c_str(), W_OK) != 0) {
    throw failure("this user may not write " + here.place.config_file() +
                  ", and keelmond takes such a file for empty. Nothing was started");
  }
  if (now.config) return;
  throw failure("there is no " + here.place.config_file() +
                ": `keelmondctl init` makes one. Nothing was started");
}

/// A daemon of root runs as root whatever the owner of the list writes there. The first process of
/// a container is told by who made that what it runs as.
void require_owner(const session& here, const snapshot& now) {
  if (::geteuid() != 0 || ::getpid() == 1 || !now.config || now.search.daemon) return;
  const uid_t owner = now.config->status.st_uid;
  if (owner == 0) return;
  const auto account = runner::accounts().find_user(std::to_string(owner));
  const std::string user =
      account && !account->name.empty() ? account->name : std::to_string(owner);
  throw failure(here.place.config_file() + " belongs to " + user + ", and by it " + user +
                " would run anything as root. Nothing was started. Start it as that user, with "
                "its service or `runuser -u " +
                user + " -- keelmondctl -C " + here.place.directory +
                " up`; --as-root starts it all the same");
}

void make_live_directory(const session& here) {
  const std::string path = here.place.directory + "/notify";
  if (::mkdir(path.c_str(), 0755) == 0) say("made " + path);
}

/// The programs that are to run, as they are now.
std::vector<program_status> wanted_programs(const session& here, const snapshot& now) {
  std::vector<program_status> programs = list_programs(now, here.place);
  std::erase_if(programs, [](const program_status& one) {
    return one.wanted != "run" || one.now == actual::left_over;
  });
  return programs;
}

bool is_pending(const program_status& one) {
  return one.now == actual::starting;
}

process await_daemon(const session& here, milliseconds limit) {
  daemon_search search;
  const auto is_there = [&] {
    search = find_daemon(here.proc, process_table(here.proc), here.place);
    return search.daemon.has_value();
  };
  if (poll_until(limit, kLookEvery, is_there)) return *search.daemon;
  throw failure("keelmond was started and did not stay: what it said is in " +
                here.place.directory + "/console.txt and keelmond.log");
}

}  // namespace

std::size_t stop_left_over(const session& here, const snapshot& now, milliseconds grace) {
  if (now.left_over.empty()) return 0;
  stopping programs(here.proc, now.left_over);
  for (const std::string& one : programs.left())
    say("stopping " + one + ", which an earlier keelmond left running");
  programs.ask(SIGUSR2);
  if (!programs.wait(grace)) {
    for (const std::string& one : programs.left())
      warn(here, one + " did not end on SIGUSR2 and is killed");
    programs.kill();
    if (!programs.wait(grace)) {
      throw failure("what an earlier keelmond left running cannot be stopped; nothing was started");
    }
  }
  return now.left_over.size();
}

process launch_daemon(const session& here, milliseconds limit) {
  const std::string program = find_installed_program(kDaemonName);
  if (remove_left_over_pid_file(here.place)) {
    say("removed run.pid, which was left over: no living keelmond held it");
  }
  start_daemon(program, here.place);
  return await_daemon(here, limit);
}

process ensure_daemon(const session& here, milliseconds limit, bool as_root) {
  require_config(here, here.look());
  const config_lock alone(here.place.config_file());
  const snapshot now = here.look();
  if (now.search.daemon) {
    say("keelmond runs already");
    return *now.search.daemon;
  }
  require_visible(here, now.search);
  if (!as_root) require_owner(here, now);
  make_live_directory(here);
  stop_left_over(here, now, limit);
  return launch_daemon(here, limit);
}

int wait_for_programs(const session& here, milliseconds limit,
                      const std::function<bool()>& gives_up) {
  const auto end = steady::now() + limit;
  std::vector<program_status> programs;
  process daemon;
  for (;;) {
    if (gives_up()) return exit_status::kFailed;
    const snapshot now = here.look();
    daemon = need_daemon(here, now);
    programs = wanted_programs(here, now);
    if (std::none_of(programs.begin(), programs.end(), is_pending) || steady::now() >= end) break;
    std::this_thread::sleep_for(kLookEvery);
  }
  std::size_t alive = 0;
  for (const program_status& one : programs) {
    if (one.program) {
      ++alive;
    } else {
      warn(here,
           one.name + " is not alive: " +
               (one.why.empty() ? "it has not been started in time; see keelmond.log" : one.why));
    }
  }
  const std::string how_many =
      programs.empty() ? "and there is no program to run: `keelmondctl add NAME` lists one"
                       : std::to_string(alive) + " of " + std::to_string(programs.size()) +
                             " programs that are to run are alive";
  say("keelmond runs in " + here.place.directory + " (PID " + std::to_string(daemon.pid) + "), " +
      how_many);
  return alive == programs.size() ? exit_status::kDone : exit_status::kFailed;
}

int run_up(const session& here, const up_options& options) {
  if (options.foreground) return stay_with_daemon(here, options);
  ensure_daemon(here, options.timeout, options.as_root);
  return wait_for_programs(here, options.timeout);
}

}  // namespace control
