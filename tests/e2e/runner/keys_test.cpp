#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tests/e2e/runner/program_files.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

using runner::program_phase;
using runner::program_state;

namespace {

/// Runs a command of the shell as the program, with more lines of the file around it. Its output is
/// that of the file "out" beside the program files.
std::string add_shell(runner_place& place, const std::string& command,
                      const std::string& more = "") {
  return place.add("[program]\nshell = yes\ncommand = { " + command +
                   "; } > out.new && mv out.new out; exec sleep 1000\n" + more);
}

/// The file "out" when it is there.
std::string output_of(runner_place& place) {
  EXPECT_TRUE(wait_until([&] { return place.site().has("programs/out"); }));
  return place.read("out");
}

bool is_root() {
  return ::geteuid() == 0;
}

/// The descriptors that a process has, one behind the other. A program has more while it is loaded.
std::string descriptors_of(pid_t pid) {
  std::string all;
  for (int fd = 0; fd < 64; ++fd) {
    const fs::path link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
    if (fs::is_symlink(fs::symlink_status(link))) all += std::to_string(fd) + " ";
  }
  return all;
}

/// The environment that a process was started with, which comes a moment after its name.
std::string environment_of(pid_t pid) {
  std::string all;
  EXPECT_TRUE(wait_until([&] {
    all = read_file("/proc/" + std::to_string(pid) + "/environ");
    return !all.empty();
  }));
  return all;
}

}  // namespace

TEST(runner_keys, words_are_split_as_a_shell_does_and_nothing_is_expanded) {
  runner_place place;
  const std::string script = place.site().add_script(
      "for word in \"$@\"; do echo \"<$word>\"; done > \"${0%/*}/out.new\"\n"
      "mv \"${0%/*}/out.new\" \"${0%/*}/out\"\n" +
      place.site().stay());
  place.add("[program]\ncommand = " + place.path_of(script) +
            " one 'two  words' \"a \\\"b\\\"\" x\\ y $HOME * ''\n");
  place.start();
  EXPECT_EQ(output_of(place), "<one>\n<two  words>\n<a \"b\">\n<x y>\n<$HOME>\n<*>\n<>\n");
}

TEST(runner_keys, shell_hands_the_command_to_a_shell) {
  runner_place place;
  place.add("[program]\nshell = yes\ncommand = echo $((6 * 7)) > out; exec sleep 1000\n");
  place.start();
  EXPECT_EQ(place.wait_text("out", "42\n"), "42\n");
}

TEST(runner_keys, a_program_starts_in_the_directory_of_its_file_or_in_another) {
  runner_place place;
  const fs::path other = place.site().site() / "other place";
  fs::create_directory(other);
  const std::string here = add_shell(place, "pwd");
  place.add(
      "[program]\nshell = yes\ndirectory = ../other place\n"
      "command = pwd > out.new && mv out.new out; exec sleep 1000\n");
  place.start();
  EXPECT_EQ(output_of(place), (place.site().site() / "programs").string() + "\n");
  EXPECT_TRUE(wait_until([&] { return place.site().has("other place/out"); }));
  EXPECT_EQ(place.site().read("other place/out"), other.string() + "\n");
}

TEST(runner_keys, umask_is_not_the_supervisors_one) {
  runner_place place;
  add_shell(place, "umask");
  place.add(
      "[program]\numask = 077\nshell = yes\n"
      "command = umask > mask.new && mv mask.new mask; exec sleep 1000\n");
  place.start();
  EXPECT_EQ(output_of(place), "0022\n");
  EXPECT_EQ(place.wait_text("mask", "0077\n"), "0077\n");
}

TEST(runner_keys, a_program_gets_default_signals_three_descriptors_and_a_session) {
  runner_place place;
  const std::string name = place.add("[program]\ncommand = sleep 1000\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  const auto is_zero = [&](const char* field) {
    return process_table::status_field(state.pid, field) == "0000000000000000";
  };
  EXPECT_TRUE(wait_until([&] { return is_zero("SigIgn") && is_zero("SigBlk"); }));
  EXPECT_TRUE(wait_until([&] { return descriptors_of(state.pid) == "0 1 2 "; }))
      << descriptors_of(state.pid);
  EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(state.pid) + "/fd/0"), "/dev/null");
  EXPECT_EQ(process_table::find(state.pid)->session, state.pid);
}

TEST(runner_keys, nice_and_oom_score_are_set) {
  runner_place place;
  const std::string name =
      place.add("[program]\ncommand = sleep 1000\nnice = 7\noom_score = 300\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(state.pid)), 7);
  EXPECT_EQ(read_file("/proc/" + std::to_string(state.pid) + "/oom_score_adj"), "300\n");
}

TEST(runner_keys, no_new_privileges_is_set_only_when_asked_for) {
  runner_place place;
  const std::string with = place.add("[program]\ncommand = sleep 1000\nno_new_privileges = yes\n");
  const std::string without = place.add("[program]\ncommand = sleep 1000\n");
  place.start();
  using process_table::status_field;
  EXPECT_EQ(status_field(place.wait_phase(with, program_phase::running).pid, "NoNewPrivs"), "1");
  EXPECT_EQ(status_field(place.wait_phase(without, program_phase::running).pid, "NoNewPrivs"), "0");
}

TEST(runner_keys, the_environment_is_handed_on_changed_or_clean) {
  runner_place place;
  fs::create_directory(place.site().site() / "programs");
  write_file(place.site().site() / "programs" / "variables",
             "# a file\nFROM_FILE='one \"word\"'\nBOTH=file\n");
  add_shell(place, "echo \"$FROM_FILE|$BOTH|$HERE|$INHERITED|$NOTIFY_SOCKET\"",
            "[environment]\nfile = variables\nBOTH = key\nHERE = a b  c\n");
  const std::string clean =
      place.add("[program]\ncommand = sleep 1000\n[environment]\nclean = yes\nONLY = 1\n");
  start_options options;
  options.before_exec = [] {
    ::setenv("INHERITED", "yes", 1);
    ::setenv("NOTIFY_SOCKET", "/run/nowhere", 1);
  };
  place.start(options);
  EXPECT_EQ(output_of(place), "one \"word\"|key|a b  c|yes|\n");
  const program_state state = place.wait_phase(clean, program_phase::running);
  EXPECT_EQ(environment_of(state.pid),
            std::string("PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin") +
                '\0' + "ONLY=1" + '\0' + "KEELMOND_RUN=" + state.mark + '\0');
  ::kill(state.launcher, SIGUSR2);
}

TEST(runner_keys, user_group_and_groups_are_dropped_for_good) {
  if (!is_root()) GTEST_SKIP() << "only root may become somebody else";
  runner_place place;
  const std::string named =
      place.add("[program]\ncommand = sleep 1000\nuser = nobody\numask = 027\n");
  const std::string listed = place.add(
      "[program]\ncommand = sleep 1000\nuser = 12345\ngroup = 12346\n"
      "groups = 12347 12348\n");
  place.start();
  using process_table::status_field;
  program_state state = place.wait_phase(named, program_phase::running);
  EXPECT_EQ(status_field(state.pid, "Uid"), "65534\t65534\t65534\t65534");
  EXPECT_EQ(status_field(state.pid, "Gid"), "65534\t65534\t65534\t65534");
  EXPECT_EQ(status_field(state.pid, "CapEff"), "0000000000000000");
  EXPECT_NE(environment_of(state.pid).find("USER=nobody"), std::string::npos);
  state = place.wait_phase(listed, program_phase::running);
  EXPECT_EQ(status_field(state.pid, "Uid"), "12345\t12345\t12345\t12345");
  EXPECT_EQ(status_field(state.pid, "Groups"), "12346 12347 12348 ");
  // What the kernel does when the launcher dies is not forgotten with the user.
  ::kill(state.launcher, SIGKILL);
  EXPECT_TRUE(wait_until([&] { return !process_table::is_alive(state.pid); }));
}

TEST(runner_keys, whoever_is_that_user_already_may_be_named) {
  runner_place place;
  const std::string user = std::to_string(::getuid());
  const std::string group = std::to_string(::getgid());
  const std::string name =
      place.add("[program]\ncommand = sleep 1000\nuser = " + user + "\ngroup = " + group + "\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  using process_table::status_field;
  EXPECT_TRUE(status_field(state.pid, "Uid").starts_with(user + "\t" + user));
  EXPECT_TRUE(status_field(state.pid, "Gid").starts_with(group + "\t" + group));
}

TEST(runner_keys, an_ordinary_user_may_not_become_another) {
  if (is_root()) GTEST_SKIP() << "root may";
  runner_place place;
  const std::string user = place.add("[program]\ncommand = sleep 1000\nuser = root\n");
  const std::string group = place.add("[program]\ncommand = sleep 1000\ngroup = 0\n");
  const std::string self =
      place.add("[program]\ncommand = sleep 1000\nuser = " + std::to_string(::getuid()) +
                "\ngroup = " + std::to_string(::getgid()) + "\ngroups = 0\n");
  const std::string nice = place.add("[program]\ncommand = sleep 1000\nnice = -20\n");
  const std::string score = place.add("[program]\ncommand = sleep 1000\noom_score = -500\n");
  place.start();
  const auto expect = [&](const std::string& name, const std::string& begin, const char* end) {
    const std::string told = place.wait_phase(name, program_phase::waiting).status;
    EXPECT_TRUE(told.starts_with(place.path_of(name) + begin)) << told;
    EXPECT_TRUE(contains(told, end)) << told;
  };
  const char* const why =
      ": Operation not permitted; only a supervisor that runs as root may do that";
  expect(user, ":4: user: cannot ", why);
  expect(group, ":4: group: cannot ", why);
  expect(self, ":6: groups: cannot have its groups", why);
  expect(nice, ":4: nice: cannot set it", ": Permission denied");
  expect(score, ":4: oom_score: cannot set it", ": Permission denied");
}

TEST(runner_keys, the_supervisor_can_be_named) {
  runner_place place;
  const fs::path other = place.site().site() / "elsewhere";
  fs::create_directories(other / "notify");
  const std::string name =
      place.add("[program]\ncommand = sleep 1000\nsupervisor = " + other.string() + "\n");
  place.start();
  EXPECT_TRUE(
      wait_until([&] { return place.site().read("elsewhere/notify/" + name + ".ready") == "1"; }));
  EXPECT_FALSE(place.site().has("notify/" + name + ".ready"));
}
