#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

#include "runner/file/values.h"
#include "runner/supervise/descendants.h"
#include "runner/supervise/supervision.h"

namespace runner {
namespace {

std::string describe_status(int status) {
  if (WIFSIGNALED(status)) return "signal " + signal_name(WTERMSIG(status));
  return "exit " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

void supervision::request_end() {
  // Every reload with "stop" asks again, and nothing is done twice.
  if (std::exchange(is_ending_, true)) return;
  switch (state_.phase) {
    case program_phase::starting:
    case program_phase::running:
      return end_program("");
    case program_phase::before:
      for (side_command& one : sides_) {
        if (one.what == purpose::before) end_side(one);
      }
      return;
    case program_phase::stopping:
    case program_phase::clearing:
    case program_phase::after:
      return;
    default:
      is_done_ = true;
  }
}

void supervision::end_program(const std::string& why) {
  stop_asking();
  ready_limit_.reset();
  files_.set_ready(false);
  if (trouble_.empty()) trouble_ = why;
  set_phase(program_phase::stopping);
  const deadline limit = steady_now() + file_.stop.timeout;
  phase_limit_ = limit;
  if (!file_.stop.command.empty() && start_side(purpose::stop, "stop", "command", limit)) return;
  ask_to_end();
  // One that is stopped could not end.
  signal_group(SIGCONT);
}

bool supervision::signal_group(int signal) const {
  // Group 0 would be the launcher's own.
  return session_ > 0 && ::kill(-session_, signal) == 0;
}

void supervision::look_whether_group_is_over() {
  // Its number is another's as soon as nobody has it, and a stop command may go on for long.
  if (pid_ == 0 && session_ > 0 && ::kill(-session_, 0) != 0 && errno == ESRCH) session_ = 0;
}

void supervision::ask_to_end() {
  // Between its fork and its own session the program has no group. It is not asked twice: many
  // take the second time for a demand to end at once.
  if (!signal_group(file_.stop.signal) && pid_ > 0) ::kill(pid_, file_.stop.signal);
}

void supervision::stop_took_too_long() {
  phase_limit_.reset();
  say("not ended within " + seconds_text(file_.stop.timeout) + " s: killed");
  signal_group(SIGKILL);
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
  } else {
    begin_clearing();
  }
}

void supervision::program_ended(int status) {
  if (report_.valid()) take_report();
  pid_ = 0;
  status_ = status;
  stop_asking();
  ready_limit_.reset();
  files_.set_ready(false);
  if (was_launched_) {
    lived_ = std::chrono::duration_cast<milliseconds>(steady_now() - launched_at_);
    const std::string how = describe_status(status);
    state_.status = trouble_.empty() ? how : trouble_ + " (" + how + ")";
  }
  if (state_.phase == program_phase::stopping) {
    look_at_group();
  } else {
    begin_clearing();
  }
}

void supervision::look_at_group() {
  if (pid_ > 0 || has_side(purpose::stop)) return;
  // Whoever is left of the group has been asked to end as well, and gets the same time for it.
  if (phase_limit_ && signal_group(0)) return;
  begin_clearing();
}

void supervision::begin_clearing() {
  phase_limit_.reset();
  set_phase(program_phase::clearing);
  signal_group(SIGKILL);
  clear_then(next_step::after);
}

void supervision::clear_then(next_step step) {
  when_clear_ = step;
  go_on_clearing();
}

void supervision::go_on_clearing() {
  if (kill_children()) return;
  switch (std::exchange(when_clear_, next_step::none)) {
    case next_step::after:
      session_ = 0;
      return run_after();
    case next_step::start:
      return is_ending_ ? finish_attempt() : start_program();
    case next_step::finish:
      return finish_attempt();
    case next_step::none:
      return;
  }
}

bool supervision::kill_children() {
  // Those below them become children of this process when they have gone, and have their turn then.
  bool is_left = false;
  for (const pid_t child : own_children()) {
    if (is_of_hook(child) || (log_ && log_->is_compressor(child))) continue;
    is_left = ::kill(child, SIGKILL) == 0 || is_left;
  }
  return is_left;
}

void supervision::run_after() {
  if (log_) log_->on_program_end();
  if (file_.program.after.empty()) return finish_attempt();
  set_phase(program_phase::after);
  const deadline limit = steady_now() + file_.stop.timeout;
  if (!start_side(purpose::after, "program", "after", limit)) finish_attempt();
}

void supervision::child_ended(pid_t pid, int status) {
  if (pid == pid_) return program_ended(status);
  if (log_ && log_->on_child_end(pid, status)) return;
  const auto found = std::find_if(sides_.begin(), sides_.end(),
                                  [&](const side_command& one) { return one.pid == pid; });
  if (found == sides_.end()) return;
  side_command ended = std::move(*found);
  sides_.erase(found);
  side_ended(std::move(ended), status);
}

void supervision::side_ended(side_command ended, int status) {
  const bool is_good = status == 0;
  const std::string how = std::string(ended.key) + ": " + describe_status(status);
  const std::vector<std::string> environment;
  const launch_failure failure = read_report(ended.report.get());
  if (failure.step != launch_step::none) {
    launch_order order = order_for(ended.words, environment);
    order.section = ended.section;
    order.key = ended.key;
    const file_finding what = describe(failure, order);
    if (ended.what == purpose::before) {
      complain(what);
    } else {
      tell(what);
    }
  }
  switch (ended.what) {
    case purpose::before:
      if (is_good) return clear_then(next_step::start);
      if (trouble_.empty()) trouble_ = state_.status = how;
      return clear_then(next_step::finish);
    case purpose::after:
      if (!is_good) say(how);
      return clear_then(next_step::finish);
    case purpose::stop:
      if (!is_good) say("stop " + how);
      // What it did not end is asked the usual way.
      if (!is_good && session_ > 0) ask_to_end();
      if (state_.phase == program_phase::stopping) look_at_group();
      return;
    case purpose::question:
      leave_behind(ended, steady_now());
      if (ended.is_over) return;
      return answered(is_good ? probe_answer::yes : probe_answer::no);
    case purpose::hook:
      if (!is_good) say("on " + how);
      leave_behind(ended, ended.limit.value_or(steady_now()));
      return;
  }
}

void supervision::leave() {
  for (const side_command& one : sides_)
    ::kill(-one.pid, SIGKILL);
  close_log();
  // Nothing stays behind that a next one would meet.
  for (auto left = own_children(); !left.empty(); left = own_children()) {
    bool was_killed = false;
    for (const pid_t child : left)
      was_killed = ::kill(child, SIGKILL) == 0 || was_killed;
    if (!was_killed || (::waitpid(-1, nullptr, 0) < 0 && errno != EINTR)) break;
  }
  group_.remove();
  // Those of a launcher that has not ended yet are its own.
  if (!is_first_) files_.remove();
}

}  // namespace runner
