#include <algorithm>

#include "runner/supervise/supervision.h"

namespace runner {
namespace {

/// How long one question about readiness may take.
constexpr milliseconds kReadyQuestion{5000};
/// How far apart such questions come to be.
constexpr milliseconds kLongestPause{500};

}  // namespace

bool supervision::is_asking_for_readiness() const {
  return !is_ready_;
}

const probe_settings& supervision::question() const {
  return is_asking_for_readiness() ? file_.ready.probe : file_.health.probe;
}

void supervision::stop_asking() {
  probe_.cancel();
  is_asking_ = false;
  ask_at_.reset();
  for (side_command& one : sides_) {
    if (one.what == purpose::question) end_side(one);
  }
}

void supervision::ask_later() {
  if (is_asking_for_readiness()) {
    ask_at_ = steady_now() + ask_pause_;
    ask_pause_ = std::min(ask_pause_ * 2, kLongestPause);
  } else if (file_.health.probe.how != probe_settings::kind::none) {
    ask_at_ = steady_now() + file_.health.every;
  }
}

void supervision::ask() {
  is_asking_ = true;
  const milliseconds limit =
      is_asking_for_readiness() ? kReadyQuestion : milliseconds(file_.health.timeout);
  ask_at_ = steady_now() + limit;
  if (question().how != probe_settings::kind::command) return answered(probe_.begin(question()));
  const char* const section = is_asking_for_readiness() ? "ready" : "health";
  if (!start_side(purpose::question, section, "command", {})) answered(probe_answer::no);
}

void supervision::answered(probe_answer answer) {
  if (answer == probe_answer::pending || !is_asking_) return;
  const bool good = answer == probe_answer::yes;
  stop_asking();
  if (is_asking_for_readiness()) {
    ready_answered(good);
  } else {
    health_answered(good);
  }
}

void supervision::ready_answered(bool good) {
  if (good) return become_ready();
  ask_later();
}

void supervision::hear(const notice& said) {
  if (!said.is_ready && !said.status && !said.more_time) return;
  // Who says something has been executed.
  if (report_.valid()) take_report();
  // One that is told to end may say so late; its end goes on.
  if (state_.phase != program_phase::starting) return;
  if (said.is_ready) return become_ready();
  if (said.more_time)
    ready_limit_ = std::max(ready_limit_, deadline(steady_now() + *said.more_time));
  if (!said.status || *said.status == state_.says) return;
  state_.says = *said.status;
  files_.write(state_);
}

void supervision::health_answered(bool good) {
  bad_answers_ = good ? 0 : bad_answers_ + 1;
  if (bad_answers_ < file_.health.failures) return ask_later();
  const std::string why = std::to_string(bad_answers_) + " health checks failed";
  say(why + ": it is ended");
  end_program(why);
}

}  // namespace runner
