#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "tests/e2e/runner/program_files.h"
#include "tests/support/wait_until.h"

using runner::program_phase;
using runner::program_state;

namespace {

constexpr std::chrono::seconds kLimit{30};

bool wait_gone(pid_t pid) {
  return wait_until([&] { return !process_table::is_alive(pid); }, kLimit);
}

/// The beginning of a script that what usually stops one does not stop.
const std::string kIgnoreSignals = "trap '' TERM USR1 USR2 HUP INT\n";

/// A line of a script that runs another one beside it.
std::string beside(const std::string& name, const std::string& how = "") {
  return how + "\"${0%/*}/" + name + "\" &\n";
}

}  // namespace

TEST(runner_life, runs_a_program_under_the_name_of_its_file) {
  runner_place place;
  const std::string name = place.add_steady();
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  EXPECT_TRUE(place.runs_once(name, state.launcher));
  EXPECT_EQ(process_table::find(state.pid)->parent, state.launcher);
  EXPECT_TRUE(wait_until([&] { return place.site().is_live(name); }));
  EXPECT_TRUE(wait_until([&] { return place.is_ready(name); }));
}

TEST(runner_life, has_the_name_also_when_env_has_looked_for_the_launcher) {
  runner_place place;
  const std::string name = place.add_steady();
  std::string text = place.read(name);
  text.replace(0, 2, "#!/usr/bin/env -S ");
  place.site().write_executable(place.path_of(name), text);
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  EXPECT_TRUE(place.runs_once(name, state.launcher));
}

TEST(runner_life, ends_with_its_program_and_leaves_no_files) {
  runner_place place;
  const std::string name = place.add_steady();
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  place.stop(name);
  EXPECT_FALSE(process_table::is_alive(state.pid));
  EXPECT_FALSE(place.site().has("notify/" + name + ".state"));
  EXPECT_FALSE(place.site().has("notify/" + name + ".ready"));
}

TEST(runner_life, starts_a_killed_program_again) {
  runner_place place;
  const std::string name = place.add_steady();
  place.start();
  const program_state first = place.wait_phase(name, program_phase::running);
  ::kill(first.pid, SIGKILL);
  const program_state second = place.wait_again(name, first.pid);
  EXPECT_EQ(second.launcher, first.launcher);
  EXPECT_EQ(second.status, "signal KILL");
}

TEST(runner_life, ends_on_term_and_int_as_well) {
  runner_place place;
  const std::string name = place.add_steady();
  place.start();
  program_state state = place.wait_phase(name, program_phase::running);
  for (const int signal : {SIGTERM, SIGINT}) {
    ::kill(state.launcher, signal);
    EXPECT_TRUE(wait_gone(state.pid));
    EXPECT_TRUE(wait_gone(state.launcher));
    // The supervisor starts it anew.
    state = place.wait_again(name, state.pid);
  }
}

TEST(runner_life, takes_everything_along_that_the_program_started) {
  runner_place place;
  // One in the group, one in a session of its own, one whose parent has gone; all ignore signals.
  const std::string helper =
      place.site().add_script(kIgnoreSignals + place.site().note_start() + place.site().stay());
  const std::string program =
      place.site().add_script(beside(helper) + beside(helper, "setsid ") + "(setsid \"${0%/*}/" +
                              helper + "\" &)\n" + place.site().note_start() + place.site().stay());
  const std::string name =
      place.add("[program]\ncommand = " + place.path_of(program) + "\n[stop]\ntimeout = 0.3\n");
  place.start();
  place.wait_phase(name, program_phase::running);
  ASSERT_TRUE(wait_until([&] { return place.site().running(helper).size() == 3; }, kLimit));
  place.stop(name);
  EXPECT_TRUE(place.site().running(helper).empty());
  EXPECT_TRUE(place.site().running(program).empty());
}

TEST(runner_life, ends_what_a_killed_program_leaves_before_the_next_start) {
  runner_place place;
  const std::string worker = place.site().add_steady();
  const std::string master = place.site().add_script(
      beside(worker, "setsid ") + place.site().note_start() + place.site().stay());
  const std::string name = place.add("[program]\ncommand = " + place.path_of(master) + "\n");
  place.start();
  const program_state first = place.wait_phase(name, program_phase::running);
  const pid_t orphan = place.site().wait_running(worker);
  ::kill(first.pid, SIGKILL);
  place.wait_again(name, first.pid);
  EXPECT_FALSE(process_table::is_alive(orphan));
  place.site().wait_running(worker, 2);
}

TEST(runner_life, kills_a_program_that_does_not_end_in_time) {
  runner_place place;
  const std::string ignoring =
      place.site().add_script(kIgnoreSignals + place.site().note_start() + place.site().stay());
  const std::string name =
      place.add("[program]\ncommand = " + place.path_of(ignoring) + "\n[stop]\ntimeout = 200ms\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  place.site().wait_running(ignoring);
  place.stop(name);
  EXPECT_FALSE(process_table::is_alive(state.pid));
}

TEST(runner_life, a_second_request_to_end_changes_nothing) {
  runner_place place;
  const std::string slow = place.site().add_script(
      "trap 'echo asked >> \"${0%/*}/asked\"' TERM\n" + place.site().note_start() +
      "until [ -e \"${0%/*}/enough\" ]; do sleep 0.02; done\n");
  const std::string name =
      place.add("[program]\ncommand = " + place.path_of(slow) + "\n[stop]\ntimeout = 1h\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  place.site().wait_running(slow);
  ::kill(state.launcher, SIGUSR2);
  EXPECT_EQ(place.wait_text("asked", "asked\n"), "asked\n");
  for (const int signal : {SIGUSR2, SIGTERM, SIGUSR2})
    ::kill(state.launcher, signal);
  EXPECT_TRUE(keeps([&] { return process_table::is_alive(state.pid); }));
  EXPECT_EQ(place.read("asked"), "asked\n");
  write_file(place.path_of("enough"), "");
  EXPECT_TRUE(wait_gone(state.launcher));
  EXPECT_FALSE(process_table::is_alive(state.pid));
}

TEST(runner_life, hands_the_signals_of_the_program_on) {
  runner_place place;
  const std::string program = place.site().add_script(
      "for s in HUP USR1 WINCH; do trap \"echo $s >> \\\"${0%/*}/heard\\\"\" $s; done\n"
      "echo up > \"${0%/*}/heard\"\nwhile :; do " +
      place.site().stay() + "done\n");
  const std::string name = place.add("[program]\ncommand = " + place.path_of(program) + "\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  std::string heard = "up\n";
  ASSERT_EQ(place.wait_text("heard", heard), heard);
  for (const auto& [number, text] :
       {std::pair{SIGHUP, "HUP\n"}, std::pair{SIGUSR1, "USR1\n"}, std::pair{SIGWINCH, "WINCH\n"}}) {
    ::kill(state.launcher, number);
    heard += text;
    EXPECT_EQ(place.wait_text("heard", heard), heard);
  }
}

TEST(runner_life, a_killed_launcher_takes_its_program_along) {
  runner_place place;
  const std::string worker = place.site().add_steady();
  const std::string master =
      place.site().add_script(beside(worker) + place.site().note_start() + place.site().stay());
  const std::string name = place.add("[program]\ncommand = " + place.path_of(master) + "\n");
  place.start();
  const program_state first = place.wait_phase(name, program_phase::running);
  const pid_t child = place.site().wait_running(worker);
  ::kill(first.launcher, SIGKILL);
  EXPECT_TRUE(wait_gone(first.pid));
  const program_state second = place.wait_again(name, first.pid);
  EXPECT_NE(second.launcher, first.launcher);
  // The next launcher has ended what the kernel does not.
  EXPECT_FALSE(process_table::is_alive(child));
}

TEST(runner_life, the_next_launcher_ends_a_program_that_has_changed_its_user) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may become somebody else";
  runner_place place;
  const std::string name = place.add(
      "[program]\ncommand = setpriv --reuid 65534 --regid 65534 --clear-groups sleep 1000\n");
  place.start();
  const program_state first = place.wait_phase(name, program_phase::running);
  ASSERT_TRUE(wait_until([&] {
    const auto program = process_table::find(first.pid);
    return program && program->name == "sleep";
  }));
  ::kill(first.launcher, SIGKILL);
  // With its user it has lost what makes the kernel kill it with the launcher.
  place.wait_again(name, first.pid);
  EXPECT_FALSE(process_table::is_alive(first.pid));
}

TEST(runner_life, ends_when_the_supervisors_child_above_it_is_killed) {
  runner_place place;
  const std::string name = place.add_steady();
  place.start();
  program_state state = place.wait_phase(name, program_phase::running);
  for (int round = 0; round < 3; ++round) {
    std::vector<pid_t> children;
    ASSERT_TRUE(wait_until([&] {
      children = place.site().children();
      return children.size() == 1;
    }));
    ::kill(children.front(), SIGKILL);
    EXPECT_TRUE(wait_gone(state.launcher));
    EXPECT_FALSE(process_table::is_alive(state.pid));
    // One program at any time: the next one waits for the end of this one.
    state = place.wait_again(name, state.pid);
    EXPECT_TRUE(place.runs_once(name, state.launcher));
  }
}

TEST(runner_life, runs_on_when_the_supervisor_itself_is_killed) {
  runner_place place;
  const std::string name = place.add_steady();
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  place.site().shut_down_by(SIGKILL);
  EXPECT_TRUE(keeps([&] { return process_table::is_alive(state.pid); }));
  ::kill(state.launcher, SIGUSR2);
  EXPECT_TRUE(wait_gone(state.pid));
}

TEST(runner_life, ends_with_the_supervisor) {
  runner_place place;
  const std::string name = place.add_steady();
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  EXPECT_EQ(place.site().shut_down_by(SIGUSR2), 0);
  EXPECT_TRUE(wait_gone(state.launcher));
  EXPECT_FALSE(process_table::is_alive(state.pid));
}
