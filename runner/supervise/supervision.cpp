#include "runner/supervise/supervision.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "runner/file/process_stat.h"
#include "runner/launch/environment.h"
#include "runner/supervise/mark.h"

namespace runner {
namespace {

/// How long what was killed is waited for. Then it hangs in the kernel, and nobody can end it.
constexpr std::chrono::seconds kLeftoversLimit{5};
constexpr milliseconds kFirstLeftoversPause{10};
constexpr milliseconds kLongestLeftoversPause{200};

/// How often it is looked whether what is needed is ready. Without a watch: inotify instances are
/// few for each user, and the supervisor, which cannot do without one, takes them from the same.
constexpr milliseconds kFirstNeedsPause{10};
constexpr milliseconds kLongestNeedsPause{500};

/// The section `log`, as far as it says anything.
std::string text_of_log(const program_file& file) {
  std::string text;
  for (const program_file::setting& one : file.stated) {
    if (one.section == "log") text += one.key + "=" + one.value + "\n";
  }
  return text;
}

}  // namespace

supervision::supervision(std::string path)
    : path_(std::move(path)), name_(program_name_of(path_)), files_("", name_) {}

supervision::~supervision() = default;

int supervision::run() {
  take_over_process();
  chain_ = find_supervisor();
  if (chain_.broken) {
    say("what had started it has ended, and another one is started");
    return 0;
  }
  files_ = state_files(chain_.directory, name_);
  begin_attempt();
  while (!is_done_)
    wait();
  leave();
  return 0;
}

void supervision::begin_attempt() {
  phase_limit_.reset();
  if (left_ && end_leftovers()) return;
  trouble_.clear();
  told_.clear();
  status_ = 0;
  was_launched_ = false;
  is_ready_ = false;
  lived_ = milliseconds(0);
  // Usually told to nobody: it takes no time, and the program is waited for.
  state_.phase = program_phase::reading;
  const bool is_right = read_file();
  if (await_former_launcher()) return;
  if (!is_right || !open_log()) return finish_attempt();
  if (!file_.limits.group.any()) return await_needs();
  const group_failure failure =
      group_.make(file_.limits.group, group_name(name_, files_.directory()), find_group_place());
  if (failure.text.empty()) return await_needs();
  std::string key = failure.key;
  for (const char* const any : {"memory", "cpu", "tasks"}) {
    if (key.empty() && file_.line_of("limits", any) > 0) key = any;
  }
  complain(
      {file_.line_of("limits", key), key, failure.text, "leave it out, or delegate the group"});
  finish_attempt();
}

bool supervision::read_file() {
  constexpr std::size_t kMostTold = 10;
  program_file_result result = read_program_file(path_);
  if (result.findings.empty()) {
    file_ = std::move(result.settings);
    pacing_.set(file_.restart);
    if (!file_.program.supervisor.empty()) files_ = state_files(file_.program.supervisor, name_);
    return true;
  }
  // What was right until now stays in force for what still has to be done: the pause, the log.
  if (result.log_is_right && !log_) {
    file_.log = result.settings.log;
    file_.stated = result.settings.stated;
    open_log();
  }
  for (std::size_t i = 0; i < std::min(result.findings.size(), kMostTold); ++i)
    complain(result.findings[i]);
  return false;
}

bool supervision::await_former_launcher() {
  if (!is_first_) return false;
  const auto former = files_.read();
  if (former) {
    const auto launcher = read_process_stat(former->launcher);
    if (launcher && launcher->started == former->launcher_started) {
      former_.emplace(*launcher);
      // It is ending its program: the supervisor would not have started this one otherwise.
      if (!former_->has_ended()) return true;
      former_.reset();
    }
    // It was killed, and the kernel has killed the program with it, but nobody else.
    left_.emplace(*former);
    left_limit_ = steady_now() + kLeftoversLimit;
    left_pause_ = kFirstLeftoversPause;
  }
  return end_leftovers();
}

bool supervision::end_leftovers() {
  if (left_ && left_->kill()) {
    if (steady_now() < left_limit_) {
      if (left_pause_ == kFirstLeftoversPause) tell_of_leftovers();
      phase_limit_ = steady_now() + left_pause_;
      left_pause_ = std::min(left_pause_ * 2, kLongestLeftoversPause);
      return true;
    }
    say("what an earlier keelmond-run left behind does not end");
  }
  left_.reset();
  is_first_ = false;
  files_.set_ready(false);
  return false;
}

void supervision::tell_of_leftovers() const {
  program_state told = state_;
  told.since = wall_now() / 1000;
  // If this launcher is killed as well, the next one has to find the same.
  told.pid = left_->former().pid;
  told.started = left_->former().started;
  told.mark = left_->former().mark;
  files_.write(told);
}

bool supervision::open_log() {
  const std::string text = text_of_log(file_);
  if (log_ && text == log_text_) return true;
  close_log();
  log_ = std::make_unique<program_log>(file_.log);
  log_text_ = text;
  if (log_->error().empty()) return true;
  const std::string error = log_->error();
  const char* const key = log_->error_key();
  log_.reset();
  complain({file_.line_of("log", key), key, error,
            error.starts_with("cannot open") ? "name a file that can be opened" : ""});
  return false;
}

void supervision::close_log() {
  if (log_) log_->drain_and_close();
  log_.reset();
}

const std::string* supervision::missing_need() const {
  const auto& needs = file_.program.needs;
  const auto missing = std::find_if(needs.begin(), needs.end(), [&](const std::string& need) {
    return !state_files(files_.directory(), need).is_ready();
  });
  return missing == needs.end() ? nullptr : &*missing;
}

void supervision::await_needs() {
  if (file_.program.needs.empty()) return run_before();
  set_phase(program_phase::needs);
  needs_limit_ = steady_now() + file_.program.needs_timeout;
  needs_pause_ = kFirstNeedsPause;
  look_at_needs();
}

void supervision::look_at_needs() {
  phase_limit_.reset();
  const std::string* const missing = missing_need();
  if (missing == nullptr) return run_before();
  const time_point now = steady_now();
  if (now < needs_limit_) {
    phase_limit_ = std::min(needs_limit_, now + needs_pause_);
    needs_pause_ = std::min(needs_pause_ * 2, kLongestNeedsPause);
    return;
  }
  complain({file_.line_of("program", "needs"),
            "needs",
            *missing + " is not ready within " + seconds_text(file_.program.needs_timeout) + " s",
            {}});
  finish_attempt();
}

void supervision::run_before() {
  if (file_.program.before.empty()) return start_program();
  set_phase(program_phase::before);
  // Without a limit: to bring data up to date may take hours, and whoever knows better sets one.
  if (start_side(purpose::before, "program", "before", {})) return;
  trouble_ = state_.status = "before could not be started";
  finish_attempt();
}

void supervision::start_program() {
  environment_list more{{kMarkVariable, state_.mark}};
  if (file_.ready.probe.how == probe_settings::kind::notify) {
    const std::string error = notify_.open();
    if (!error.empty()) {
      complain({file_.line_of("ready", "notify"), "notify", error, {}});
      return finish_attempt();
    }
    more.emplace_back("NOTIFY_SOCKET", notify_.address());
  }
  const auto environment = build_environment(file_, environ, more);
  const launch_order order = order_for(file_.program.command, environment);
  launched started = launch(order);
  if (started.pid < 0) {
    complain(describe(started.failure, order));
    return finish_attempt();
  }
  pid_ = session_ = started.pid;
  report_ = std::move(started.report);
  was_launched_ = true;
  launched_at_ = steady_now();
  // Told when the command has been executed: until then nothing is to take processor time.
  state_.phase = program_phase::starting;
}

void supervision::take_report() {
  const launch_failure failure = read_report(report_.get());
  report_.reset();
  if (failure.step != launch_step::none) {
    was_launched_ = false;
    const std::vector<std::string> environment;
    complain(describe(failure, order_for(file_.program.command, environment)));
    return;
  }
  const auto stat = read_process_stat(pid_);
  state_.started = stat ? stat->started : 0;
  if (state_.phase != program_phase::starting) return;
  if (file_.ready.probe.how == probe_settings::kind::none) return become_ready();
  set_phase(program_phase::starting);
  ready_limit_ = steady_now() + file_.ready.timeout;
  ask_pause_ = milliseconds(10);
  if (file_.ready.probe.how != probe_settings::kind::notify) ask();
}

void supervision::become_ready() {
  stop_asking();
  ready_limit_.reset();
  is_ready_ = true;
  notify_.close();
  state_.says.clear();
  set_phase(program_phase::running);
  files_.set_ready(true);
  run_hook("ready");
  bad_answers_ = 0;
  ask_later();
}

void supervision::finish_attempt() {
  state_.says.clear();
  group_.remove();
  notify_.close();
  phase_limit_.reset();
  if (is_ending_) {
    is_done_ = true;
    return;
  }
  const bool is_good = was_launched_ && trouble_.empty() && status_ == 0;
  const restart_policy policy = file_.restart.on;
  const bool is_over = was_launched_ && (policy == restart_policy::never ||
                                         (policy == restart_policy::failure && is_good));
  if (!is_over) return pause(!is_good);
  if (!is_good) run_hook("failure");
  say("ended: " + state_.status + "; it is not started again");
  set_phase(program_phase::ended);
}

void supervision::pause(bool failed) {
  const pacing::verdict verdict =
      pacing_.ended(was_launched_ ? std::optional(lived_) : std::nullopt);
  state_.attempt = pacing_.failures();
  if (failed) run_hook("failure");
  if (verdict.give_up) {
    say("given up after " + std::to_string(state_.attempt) + " attempts: " + state_.status);
    set_phase(program_phase::given_up);
    run_hook("give_up");
    return;
  }
  phase_limit_ = steady_now() + verdict.pause;
  state_.next = wall_now() / 1000 + verdict.pause.count();
  say("ended: " + state_.status + "; next start in " + seconds_text(verdict.pause) + " s");
  set_phase(program_phase::waiting);
}

}  // namespace runner
