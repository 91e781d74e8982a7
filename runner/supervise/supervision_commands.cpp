#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include "runner/file/values.h"
#include "runner/launch/environment.h"
#include "runner/log/standard_error.h"
#include "runner/supervise/descendants.h"
#include "runner/supervise/mark.h"
#include "runner/supervise/supervision.h"

namespace runner {
namespace {

/// How long a hook may run.
constexpr std::chrono::seconds kHookLimit{60};

/// Whether a child of this process was started by the command that has that session and mark.
bool is_child_of(pid_t child, pid_t session, const std::string& mark) {
  return child == session || ::getsid(child) == session || read_mark(child) == mark;
}

}  // namespace

std::string supervision::seconds_text(milliseconds duration) {
  char text[32];
  const long thousandths = duration.count();
  std::snprintf(text, sizeof text, "%ld.%03ld", thousandths / 1000, thousandths % 1000);
  std::string seconds = text;
  seconds.erase(seconds.find_last_not_of('0') + 1);
  if (seconds.back() == '.') seconds.pop_back();
  return seconds;
}

launch_order supervision::order_for(const command_words& words,
                                    const std::vector<std::string>& environment) const {
  launch_order order{words, file_, environment};
  if (log_) {
    order.output = log_->stdout_end();
    order.errors = log_->stderr_end();
  }
  order.group_entrance = group_.entrance();
  return order;
}

const command_words& supervision::command_of(const side_command& side) const {
  switch (side.what) {
    case purpose::before:
      return file_.program.before;
    case purpose::after:
      return file_.program.after;
    case purpose::stop:
      return file_.stop.command;
    case purpose::question:
      return std::string_view(side.section) == "ready" ? file_.ready.probe.command
                                                       : file_.health.probe.command;
    case purpose::hook:
      break;
  }
  if (std::string_view(side.key) == "ready") return file_.on.ready;
  return std::string_view(side.key) == "give_up" ? file_.on.give_up : file_.on.failure;
}

bool supervision::start_side(purpose what, const char* section, const char* key, deadline limit) {
  side_command side{0, what, section, key, {}, limit};
  side.mark = state_.mark + "." + std::to_string(++side_count_);
  environment_list more = told_variables();
  more.emplace_back(kMarkVariable, side.mark);
  const auto environment = build_environment(file_, environ, more);
  side.words = command_of(side);
  launch_order order = order_for(side.words, environment);
  order.section = section;
  order.key = key;
  // A hook may outlive the program, whose group is removed with all that is in it.
  if (what == purpose::hook) order.group_entrance.clear();
  launched started = launch(order);
  if (started.pid < 0) {
    tell(describe(started.failure, order));
    return false;
  }
  side.pid = started.pid;
  side.report = std::move(started.report);
  sides_.push_back(std::move(side));
  return true;
}

void supervision::run_hook(const char* key) {
  const side_command wanted{0, purpose::hook, "on", key, {}, {}};
  if (command_of(wanted).empty()) return;
  start_side(purpose::hook, "on", key, steady_now() + kHookLimit);
}

environment_list supervision::told_variables() const {
  environment_list list{{"NAME", name_}, {"LIVED", seconds_text(lived_)}};
  const bool was_killed = WIFSIGNALED(status_);
  list.emplace_back("STATUS", was_killed ? "" : std::to_string(WEXITSTATUS(status_)));
  list.emplace_back("SIGNAL", was_killed ? signal_name(WTERMSIG(status_)) : "");
  if (pid_ > 0) list.emplace_back("PID", std::to_string(pid_));
  return list;
}

bool supervision::has_side(purpose what) const {
  return std::any_of(sides_.begin(), sides_.end(),
                     [&](const side_command& one) { return one.what == what; });
}

void supervision::end_side(side_command& one) {
  one.limit.reset();
  one.is_over = true;
  // It may not have got as far as leading its group.
  ::kill(-one.pid, SIGKILL);
  ::kill(one.pid, SIGKILL);
}

void supervision::leave_behind(const side_command& ended, time_point until) {
  remains_.push_back({ended.pid, ended.mark, until});
  look_at_remains();
}

void supervision::look_at_remains() {
  if (remains_.empty()) return;
  // Whoever has lost his parent is a child of this process now; what is below him has its turn when
  // he has gone.
  const std::vector<pid_t> children = own_children();
  const time_point now = steady_now();
  std::erase_if(remains_, [&](remains& one) {
    one.is_over = one.until <= now;
    bool is_any = false;
    for (const pid_t child : children) {
      if (child == pid_ || !is_child_of(child, one.session, one.mark)) continue;
      is_any = true;
      if (one.is_over) ::kill(child, SIGKILL);
    }
    return !is_any;
  });
}

bool supervision::is_of_hook(pid_t child) const {
  const bool is_running = std::any_of(sides_.begin(), sides_.end(), [&](const side_command& one) {
    return one.what == purpose::hook && is_child_of(child, one.pid, one.mark);
  });
  return is_running || std::any_of(remains_.begin(), remains_.end(), [&](const remains& one) {
           return !one.is_over && is_child_of(child, one.session, one.mark);
         });
}

void supervision::set_phase(program_phase phase) {
  state_.phase = phase;
  state_.since = wall_now() / 1000;
  state_.pid = pid_;
  if (pid_ == 0) state_.started = 0;
  if (phase != program_phase::waiting) state_.next = 0;
  state_.log = file_.log.file;
  files_.write(state_);
}

void supervision::say(const std::string& text) {
  // Where the output is inherited, so is that of other programs: the line has to say whose it is.
  if (log_ && file_.log.target != log_target::inherit) {
    log_->write_own_line(text);
  } else {
    write_standard_error("keelmond-run: " + name_ + ": " + text + "\n");
  }
}

void supervision::tell(const file_finding& what) {
  const std::string line = in_one_line(path_, what);
  // A question that cannot be asked is tried again and again.
  if (line == told_) return;
  told_ = line;
  write_standard_error("keelmond-run: " + line + "\n");
  // What is inherited has just been written to.
  if (log_ && file_.log.target != log_target::inherit) log_->write_own_line(line);
}

void supervision::complain(const file_finding& what) {
  if (trouble_.empty()) state_.status = trouble_ = in_one_line(path_, what);
  tell(what);
}

}  // namespace runner
