#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>

#include "runner/file/process_stat.h"
#include "runner/supervise/descriptors.h"
#include "runner/supervise/mark.h"
#include "runner/supervise/supervision.h"

namespace runner {
namespace {

constexpr int kEnding[] = {SIGUSR2, SIGTERM, SIGINT};
constexpr int kHandedOn[] = {SIGHUP, SIGUSR1, SIGWINCH};

/// How long nothing has to happen before what is not needed is given back.
constexpr milliseconds kCalm{1000};

/// How often a process is looked at that there is no handle on.
constexpr milliseconds kLook{1000};

bool is_among(int signal, const int (&list)[3]) {
  return std::find(std::begin(list), std::end(list), signal) != std::end(list);
}

unique_fd take_signals_over() {
  sigset_t wanted;
  ::sigemptyset(&wanted);
  for (const int signal : kEnding)
    ::sigaddset(&wanted, signal);
  for (const int signal : kHandedOn)
    ::sigaddset(&wanted, signal);
  ::sigaddset(&wanted, SIGCHLD);
  // Nothing else stays blocked: whatever else is meant to end a process ends this one.
  ::sigprocmask(SIG_SETMASK, &wanted, nullptr);
  // A supervisor has these ignored, and then no status could be read.
  ::signal(SIGCHLD, SIG_DFL);
  ::signal(SIGPIPE, SIG_IGN);
  return unique_fd(::signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK));
}

}  // namespace

void supervision::take_over_process() {
  settle_descriptors();
  signals_ = take_signals_over();
  ::umask(022);
  // The name that people look for, also when another program has read the first line of the file.
  ::prctl(PR_SET_NAME, name_.c_str());
  // What the program leaves behind becomes a child of this process, and can be ended.
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  state_.launcher = ::getpid();
  const auto own = read_process_stat(state_.launcher);
  state_.launcher_started = own ? own->started : 0;
  state_.mark = make_mark();
}

void supervision::add_request(int fd, short events) {
  if (fd >= 0) requests_.push_back({fd, events, 0});
}

void supervision::collect_requests() {
  requests_.clear();
  add_request(signals_.get());
  for (const known_process& link : chain_.links)
    add_request(link.fd());
  if (former_) add_request(former_->fd());
  add_request(report_.get());
  add_request(notify_.fd());
  const pollfd question = probe_.request();
  add_request(question.fd, question.events);
}

supervision::deadline supervision::next_deadline() const {
  deadline next;
  const auto consider = [&](const deadline& one) {
    if (one && (!next || *one < *next)) next = one;
  };
  consider(phase_limit_);
  consider(ready_limit_);
  consider(ask_at_);
  if (has_process_without_handle()) consider(looked_at_processes_ + kLook);
  for (const side_command& one : sides_)
    consider(one.limit);
  for (const remains& one : remains_) {
    if (!one.is_over) consider(one.until);
  }
  if (log_) consider(log_->next_deadline());
  return next;
}

int supervision::sleep() {
  const deadline next = next_deadline();
  const auto limit_until = [&](long most) {
    if (!next) return static_cast<int>(most);
    const auto left = std::chrono::ceil<milliseconds>(*next - steady_now()).count();
    return static_cast<int>(std::clamp<long>(left, 0, most < 0 ? long{INT_MAX} : most));
  };
  const int calm = is_reap_due_ ? 0 : limit_until(kCalm.count());
  const int ready = ::poll(requests_.data(), requests_.size(), calm);
  if (ready != 0 || calm < kCalm.count()) return ready;
  return rest_.wait(requests_, limit_until(-1));
}

void supervision::wait() {
  collect_requests();
  const std::size_t own = requests_.size();
  std::array<pollfd, program_log::kMostRequests> log_requests{};
  const std::size_t logs = log_ ? log_->poll_requests(log_requests) : 0;
  requests_.insert(requests_.end(), log_requests.begin(),
                   log_requests.begin() + static_cast<std::ptrdiff_t>(logs));
  const int ready = sleep();
  for (std::size_t i = own; ready > 0 && i < requests_.size(); ++i) {
    if (requests_[i].revents != 0) log_->on_ready(requests_[i].fd);
  }
  if (ready > 0) handle_next(own);
  if (is_reap_due_ && !is_done_) reap();
  // In each turn: there may be one without anything ready only when it is too late.
  if (!is_done_) look_at_deadlines(steady_now());
}

void supervision::handle_next(std::size_t count) {
  // One at a time: what one changes may be what the next one is about. And each in its turn, for
  // one of them may be ready always.
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t at = (turn_ + i) % count;
    if (requests_[at].revents == 0) continue;
    turn_ = at + 1;
    return handle(requests_[at].fd);
  }
}

void supervision::handle(int fd) {
  if (fd == signals_.get()) return take_signals();
  if (former_ && fd == former_->fd()) return former_ended();
  if (fd == report_.get()) return take_report();
  if (fd == notify_.fd()) return hear(notify_.take(pid_));
  if (fd == probe_.request().fd) return answered(probe_.go_on());
  link_ended();
}

void supervision::link_ended() {
  // The supervisor is starting another one already.
  chain_.links.clear();
  request_end();
}

void supervision::former_ended() {
  former_.reset();
  begin_attempt();
}

bool supervision::has_process_without_handle() const {
  return (former_ && former_->fd() < 0) ||
         std::any_of(chain_.links.begin(), chain_.links.end(),
                     [](const known_process& link) { return link.fd() < 0; });
}

void supervision::look_at_processes() {
  looked_at_processes_ = steady_now();
  if (std::any_of(chain_.links.begin(), chain_.links.end(),
                  [](const known_process& link) { return link.has_ended(); }))
    return link_ended();
  if (former_ && former_->has_ended()) former_ended();
}

void supervision::look_at_deadlines(time_point now) {
  const auto is_over = [&](const deadline& one) { return one && *one <= now; };
  if (log_) log_->on_deadline();
  if (has_process_without_handle() && looked_at_processes_ + kLook <= now) look_at_processes();
  if (is_done_) return;
  for (side_command& one : sides_) {
    if (is_over(one.limit)) end_side(one);
  }
  const bool is_any_over = std::any_of(remains_.begin(), remains_.end(), [&](const remains& one) {
    return !one.is_over && one.until <= now;
  });
  if (is_any_over) look_at_remains();
  if (is_over(ready_limit_)) {
    const std::string why = "not ready within " + seconds_text(file_.ready.timeout) + " s";
    say(why + ": it is ended");
    return end_program(why);
  }
  if (is_over(ask_at_)) return is_asking_ ? answered(probe_answer::no) : ask();
  if (!is_over(phase_limit_)) return;
  switch (state_.phase) {
    case program_phase::reading:
    case program_phase::waiting:
      return begin_attempt();
    case program_phase::needs:
      return look_at_needs();
    case program_phase::stopping:
      return stop_took_too_long();
    default:
      phase_limit_.reset();
  }
}

void supervision::take_signals() {
  // As many as there are kinds of them; what comes meanwhile has the next turn.
  std::array<signalfd_siginfo, 8> pending{};
  const ssize_t got = ::read(signals_.get(), pending.data(), sizeof pending);
  const auto count = static_cast<std::size_t>(std::max(got, ssize_t{0})) / sizeof pending[0];
  for (std::size_t i = 0; i < count; ++i)
    take_signal(static_cast<int>(pending[i].ssi_signo));
}

void supervision::take_signal(int signal) {
  if (signal == SIGCHLD) {
    reap();
  } else if (is_among(signal, kEnding)) {
    request_end();
  } else if (is_among(signal, kHandedOn) && pid_ > 0) {
    ::kill(pid_, signal);
  }
}

void supervision::reap() {
  constexpr int kMostAtOnce = 64;
  int status = 0;
  pid_t pid = 0;
  for (int i = 0; i < kMostAtOnce && (pid = ::waitpid(-1, &status, WNOHANG)) > 0; ++i) {
    child_ended(pid, status);
    look_whether_group_is_over();
  }
  // Whoever is left has the next turn, and no signal tells of it.
  is_reap_due_ = pid > 0;
  if (state_.phase == program_phase::stopping) look_at_group();
  if (when_clear_ != next_step::none && !is_done_) go_on_clearing();
  look_at_remains();
}

}  // namespace runner
