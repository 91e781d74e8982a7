#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/children.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace {

/// The value of a variable while the object lives.
class setting final {
 public:
  setting(const char* name, const std::string& value) : name_(name) {
    ::setenv(name, value.c_str(), 1);
  }
  setting(const setting&) = delete;
  setting& operator=(const setting&) = delete;
  ~setting() { ::unsetenv(name_); }

 private:
  const char* name_;
};

/// An installation whose daemon supervises one program.
struct running_place {
  installation place;
  const std::string name = place.add_steady();
  const pid_t pid = place.start_with(name);
};

}  // namespace

TEST(control_stop, returns_when_the_program_has_ended_and_start_when_it_is_back) {
  running_place here;
  const control_result stop = control(here.place, {"stop", here.name});
  EXPECT_EQ(stop.status, 0) << stop.errors;
  EXPECT_FALSE(process_table::is_alive(here.pid));
  EXPECT_TRUE(contains(here.place.read("config/server.ini"), "state=stop"));
  // Within the pause that follows the first load.
  const control_result start = control(here.place, {"start", here.name});
  EXPECT_EQ(start.status, 0) << start.errors;
  EXPECT_TRUE(contains(start.output, here.name + " runs (PID "));
  here.place.wait_running(here.name, 2);
  EXPECT_TRUE(contains(here.place.read("config/server.ini"), "state=run"));
}

TEST(control_stop, takes_patterns_and_all) {
  installation place;
  const std::string first = place.add_steady();
  const std::string second = place.add_steady();
  place.start_with({first, second});
  const control_result stop = control(place, {"stop", first.substr(0, 12) + "*"});
  EXPECT_EQ(stop.status, 0) << stop.errors;
  EXPECT_TRUE(place.running(first).empty());
  EXPECT_TRUE(place.running(second).empty());
  EXPECT_EQ(control(place, {"start", "--all"}).status, 0);
  EXPECT_EQ(place.running(second).size(), 1U);
  EXPECT_EQ(control(place, {"start", "kmc_none"}).status, 1);
  EXPECT_EQ(control(place, {"start"}).status, 2);
}

TEST(control_stop, says_that_a_program_ignores_the_signal) {
  installation place;
  const std::string name = place.add_script("trap '' USR2\n" + place.note_start() + place.stay());
  const pid_t pid = place.start_with(name);
  const control_result stop = control(place, {"stop", name, "--timeout", "3s"});
  EXPECT_EQ(stop.status, 1);
  EXPECT_TRUE(contains(
      stop.errors,
      "keelmondctl stop: " + name + " has not ended: it still runs (PID " + std::to_string(pid)))
      << stop.errors;
  EXPECT_EQ(control(place, {"signal", name, "KILL"}).status, 0);
  EXPECT_TRUE(wait_until([&] { return !process_table::is_alive(pid); }));
}

TEST(control_stop, says_that_keelmond_does_not_find_the_program) {
  installation place;
  const std::string name = place.add_steady();
  place.save({{"kmc_renamed", place.entry(name).exepath, "run"}});
  place.start();
  place.wait_running(name);
  const control_result stop = control(place, {"stop", "kmc_renamed", "--timeout", "3s"});
  EXPECT_EQ(stop.status, 1);
  EXPECT_TRUE(contains(stop.errors, ") is called " + name + ", and `pgrep kmc_renamed`"))
      << stop.errors;
}

TEST(control_stop, refuses_when_others_would_be_hit) {
  installation place;
  // One name that is the beginning of the other.
  const std::string longer = place.add_steady();
  const std::string name = longer.substr(0, longer.size() - 1);
  place.write_script(place.site() / "programs" / name, place.note_start() + place.stay());
  const std::vector<pid_t> running = place.start_with({name, longer});
  const control_result stop = control(place, {"stop", name});
  EXPECT_EQ(stop.status, 1);
  EXPECT_TRUE(contains(stop.errors, longer + " (PID " + std::to_string(running.back()) + ")"))
      << stop.errors;
  EXPECT_TRUE(process_table::is_alive(running.front()));
  EXPECT_FALSE(contains(place.read("config/server.ini"), "state=stop"));
  EXPECT_EQ(control(place, {"stop", name, "--force"}).status, 0);
  EXPECT_FALSE(process_table::is_alive(running.front()));
  place.wait_running(longer, 2);
}

TEST(control_stop, does_not_hand_a_terminal_what_others_call_themselves) {
  running_place here;
  const std::string begin = here.name.substr(0, 8);
  const std::string odd = (here.place.site() / (begin + "\033[2J")).string();
  fs::copy_file("/bin/sleep", odd);
  const pid_t stranger = ::fork();
  if (stranger == 0) {
    ::execl(odd.c_str(), odd.c_str(), "1000", nullptr);
    ::_exit(127);
  }
  children::announce(stranger);
  here.place.edit({{begin, here.place.entry(here.name).exepath, "run"}});
  ASSERT_TRUE(wait_until(
      [&] { return contains(read_file("/proc/" + std::to_string(stranger) + "/comm"), begin); }));
  const control_result stop = control(here.place, {"stop", begin});
  EXPECT_EQ(stop.status, 1);
  EXPECT_TRUE(contains(stop.errors, begin + "?[2J (PID ")) << stop.errors;
  EXPECT_FALSE(contains(stop.errors, "\033"));
  ::kill(stranger, SIGKILL);
  children::wait_for_end(stranger);
}

TEST(control_stop, does_not_take_programs_for_others_that_are_to_be_stopped_as_well) {
  installation place;
  const std::string longer = place.add_steady();
  const std::string name = longer.substr(0, longer.size() - 1);
  place.write_script(place.site() / "programs" / name, place.note_start() + place.stay());
  place.start_with({name, longer});
  const control_result stop = control(place, {"stop", name, longer});
  EXPECT_EQ(stop.status, 0) << stop.errors;
  EXPECT_TRUE(place.running(name).empty());
  EXPECT_TRUE(place.running(longer).empty());
}

TEST(control_stop, says_that_the_entry_of_a_program_whose_file_is_gone_is_skipped) {
  running_place here;
  fs::remove(here.place.entry(here.name).exepath);
  const control_result stop = control(here.place, {"stop", here.name});
  EXPECT_EQ(stop.status, 1);
  EXPECT_TRUE(contains(stop.errors, "its entry is skipped, and so is the stop")) << stop.errors;
  EXPECT_TRUE(process_table::is_alive(here.pid));
}

TEST(control_start, applies_a_change_after_an_editor_kept_a_backup) {
  running_place here;
  const fs::path config = here.place.site() / "config" / "server.ini";
  const std::string text = here.place.read("config/server.ini");
  fs::rename(config, config.string() + "~");
  write_file(config, text);
  // The daemon watches the backup, so this save does not wake it.
  EXPECT_EQ(control(here.place, {"stop", here.name}).status, 0);
  EXPECT_FALSE(process_table::is_alive(here.pid));
}

TEST(control_start, only_notes_the_state_when_no_daemon_runs) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name, "stop")});
  const control_result start = control(place, {"start", name});
  EXPECT_EQ(start.status, 0) << start.errors;
  EXPECT_TRUE(contains(start.output, "keelmondctl up"));
  EXPECT_TRUE(contains(place.read("config/server.ini"), "state=run"));
}

TEST(control_start, says_why_a_program_cannot_be_started) {
  running_place here;
  ASSERT_EQ(control(here.place, {"stop", here.name}).status, 0);
  fs::remove(here.place.entry(here.name).exepath);
  const control_result start = control(here.place, {"start", here.name});
  EXPECT_EQ(start.status, 1);
  EXPECT_TRUE(contains(start.errors, "is missing or cannot be read")) << start.errors;
}

TEST(control_restart, stops_the_program_and_prints_both_pids) {
  running_place here;
  const control_result done = control(here.place, {"restart", here.name});
  EXPECT_EQ(done.status, 0) << done.errors;
  const pid_t now = here.place.wait_running(here.name, 2);
  EXPECT_EQ(done.output, here.name + " was PID " + std::to_string(here.pid) + " and is PID " +
                             std::to_string(now) + "\n");
  // Neither the daemon nor its configuration had a part in it.
  EXPECT_EQ(here.place.loads(), 1U);
}

TEST(control_restart, leaves_programs_out_that_a_pattern_picks_and_that_are_not_to_run) {
  installation place;
  const std::string runs = place.add_steady();
  place.save({place.entry(runs), {"kmc_idle", runs, "stop"}});
  place.start();
  place.wait_running(runs);
  const control_result both = control(place, {"restart", "*"});
  EXPECT_EQ(both.status, 0) << both.errors;
  place.wait_running(runs, 2);
  EXPECT_EQ(control(place, {"restart", "kmc_i*"}).output, "none of these programs is to run\n");
  EXPECT_EQ(control(place, {"restart", "kmc_idle"}).status, 1);
}

TEST(control_restart, restarts_the_others_when_one_does_not_run) {
  installation place;
  const std::string runs = place.add_steady();
  place.save({place.entry(runs), {"kmc_none", "/nonexistent/kmc_none", "run"}});
  place.start();
  place.wait_running(runs);
  const control_result done = control(place, {"restart", "--all"});
  EXPECT_EQ(done.status, 1);
  EXPECT_TRUE(contains(done.output, runs + " was PID ")) << done.output;
  EXPECT_TRUE(contains(done.errors, "keelmondctl restart: kmc_none does not run")) << done.errors;
  place.wait_running(runs, 2);
}

TEST(control_restart, names_a_program_that_does_not_end) {
  installation place;
  const std::string name = place.add_script("trap '' USR2\n" + place.note_start() + place.stay());
  const pid_t pid = place.start_with(name);
  const control_result done = control(place, {"restart", name, "--timeout", "300ms"});
  EXPECT_EQ(done.status, 1);
  EXPECT_TRUE(contains(done.errors, "(PID " + std::to_string(pid) + ") has not ended"));
  EXPECT_EQ(control(place, {"restart", name, "--signal", "KILL"}).status, 0);
  place.wait_running(name, 2);
}

TEST(control_signal, sends_a_signal_to_the_program_alone) {
  installation place;
  const std::string name = place.add_script("trap 'echo got >> got' HUP\n" + place.note_start() +
                                            "while :; do " + place.stay() + "done\n");
  place.start_with(name);
  EXPECT_EQ(control(place, {"signal", name, "HUP"}).status, 0);
  EXPECT_TRUE(wait_until([&] { return place.read("programs/got") == "got\n"; }));
  EXPECT_EQ(control(place, {"signal", name, "NONSENSE"}).status, 2);
  EXPECT_EQ(control(place, {"signal", "kmc_none", "HUP"}).status, 1);
}

TEST(control_add, lists_a_program_and_waits_for_it) {
  running_place here;
  const std::string other = here.place.add_steady();
  const std::string before = here.place.read("config/server.ini");
  const control_result added =
      control(here.place, {"add", other, "--exepath", here.place.entry(other).exepath});
  EXPECT_EQ(added.status, 0) << added.errors;
  EXPECT_EQ(here.place.running(other).size(), 1U);
  EXPECT_EQ(here.place.wait_running(here.name), here.pid);
  EXPECT_EQ(control(here.place, {"add", other}).status, 1);
  const control_result removed = control(here.place, {"remove", other});
  EXPECT_EQ(removed.status, 0) << removed.errors;
  EXPECT_TRUE(here.place.running(other).empty());
  EXPECT_EQ(here.place.read("config/server.ini"), before);
}

TEST(control_remove, takes_no_name_for_a_pattern) {
  installation place;
  const std::string other = place.add_steady();
  const std::string odd = place.add_steady();
  // A name that fits every other one.
  place.save({place.entry(other), {"**", place.entry(odd).exepath, "run"}});
  place.start();
  const pid_t pid = place.wait_running(other);
  place.wait_running(odd);
  const control_result removed = control(place, {"remove", "**", "--force", "--timeout", "3s"});
  EXPECT_EQ(removed.status, 1) << "pgrep cannot find it";
  EXPECT_TRUE(contains(place.read("config/server.ini"), "state=run")) << "of the other one";
  EXPECT_TRUE(process_table::is_alive(pid));
}

TEST(control_add, refuses_what_keelmond_would_skip_or_could_not_stop) {
  running_place here;
  const std::string before = here.place.read("config/server.ini");
  EXPECT_EQ(control(here.place, {"add", "a_name_of_16_cha", "--exepath", "/bin/sh"}).status, 1);
  EXPECT_TRUE(contains(control(here.place, {"add", "kmc_none"}).errors, "--exepath"));
  EXPECT_EQ(control(here.place, {"add", "kmc_sh", "--exepath", "/bin/sh"}).status, 1);
  EXPECT_EQ(control(here.place, {"add", "a b"}).status, 1);
  EXPECT_TRUE(contains(control(here.place, {"add", "programs"}).errors, "is a directory"));
  EXPECT_EQ(here.place.read("config/server.ini"), before);
}

TEST(control_add, takes_a_path_from_where_it_is_called) {
  running_place here;
  const std::string other = here.place.add_steady();
  const control_result added =
      control(here.place, {"add", other, "--exepath", "programs/" + other, "--stopped"});
  EXPECT_EQ(added.status, 0) << added.errors;
  EXPECT_TRUE(contains(here.place.read("config/server.ini"),
                       "exepath = " + here.place.entry(other).exepath));
}

TEST(control_add, survives_several_at_once) {
  running_place here;
  std::vector<std::string> names;
  std::vector<std::unique_ptr<running_control>> runs;
  for (int i = 0; i < 4; ++i)
    names.push_back(here.place.add_steady());
  for (const std::string& name : names) {
    runs.push_back(std::make_unique<running_control>(
        here.place,
        std::vector<std::string>{"add", name, "--exepath", here.place.entry(name).exepath}));
  }
  for (const auto& run : runs)
    EXPECT_EQ(run->wait().status, 0) << run->errors();
  for (const std::string& name : names)
    EXPECT_EQ(here.place.running(name).size(), 1U);
  EXPECT_TRUE(contains(here.place.read("config/server.ini"), "linux=5"));
}

TEST(control_edit, saves_what_the_editor_made_and_has_it_loaded) {
  running_place here;
  const setting editor("EDITOR", "sed -i s/state=run/state=stop/");
  const control_result done = control(here.place, {"edit"});
  EXPECT_EQ(done.status, 0) << done.errors;
  EXPECT_TRUE(contains(done.output, "is stopped: SIGUSR2")) << done.output;
  EXPECT_TRUE(contains(done.output, "saved, and keelmond has loaded it"));
  EXPECT_TRUE(wait_until([&] { return !process_table::is_alive(here.pid); }));
}

TEST(control_edit, saves_nothing_that_has_errors_when_nobody_can_be_asked) {
  running_place here;
  const std::string before = here.place.read("config/server.ini");
  const setting editor("EDITOR", "sed -i s/state=run/state=walk/");
  const control_result done = control(here.place, {"edit"});
  EXPECT_EQ(done.status, 1);
  EXPECT_TRUE(contains(done.errors, "config/server.ini:6: error: the state \"walk\""))
      << done.errors;
  EXPECT_TRUE(contains(done.errors, "nothing was saved. What was edited is in "));
  EXPECT_EQ(here.place.read("config/server.ini"), before);
  const setting none("EDITOR", "");
  EXPECT_TRUE(contains(control(here.place, {"edit"}).errors, "there is no terminal to edit on"));
  const setting fails("EDITOR", "false");
  EXPECT_EQ(control(here.place, {"edit"}).status, 1);
  const setting breaks_off("EDITOR", "sh -c 'echo \"# my work\" >> \"$0\"; exit 3'");
  const std::string broken = control(here.place, {"edit"}).errors;
  const std::size_t at = broken.find("What was edited is in ");
  ASSERT_NE(at, std::string::npos) << broken;
  const std::string kept = broken.substr(at + 22, broken.find_last_of('.') - at - 22);
  EXPECT_EQ(read_file(kept), before + "# my work\n");
  fs::remove(kept);
  const setting changes_nothing("EDITOR", "true");
  EXPECT_TRUE(contains(control(here.place, {"edit"}).output, "nothing was changed"));
}

TEST(control_edit, does_not_overwrite_what_somebody_else_saved_meanwhile) {
  running_place here;
  const fs::path config = here.place.site() / "config" / "server.ini";
  const setting editor("EDITOR", "echo '# theirs' >> " + config.string() + "; echo '# mine' >>");
  const control_result done = control(here.place, {"edit"});
  EXPECT_EQ(done.status, 1);
  EXPECT_TRUE(contains(done.errors, "was changed by somebody else meanwhile")) << done.errors;
  EXPECT_TRUE(contains(here.place.read("config/server.ini"), "# theirs"));
  EXPECT_FALSE(contains(here.place.read("config/server.ini"), "# mine"));
}
