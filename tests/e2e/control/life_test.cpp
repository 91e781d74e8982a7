#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

TEST(control_init, makes_what_a_supervisor_needs_and_overwrites_nothing) {
  installation place;
  fs::remove_all(place.site() / "config");
  fs::remove_all(place.site() / "notify");
  const control_result made = control(place, {"init"});
  EXPECT_EQ(made.status, 0) << made.errors;
  EXPECT_TRUE(place.has("notify"));
  EXPECT_NE(place.read("config/server.ini").find("linux = 0"), std::string::npos);
  place.save("[keelmond]\nlinux = 0\n# mine\n");
  const control_result kept = control(place, {"init", "--example"});
  EXPECT_EQ(kept.status, 0) << kept.errors;
  EXPECT_EQ(place.read("config/server.ini"), "[keelmond]\nlinux = 0\n# mine\n");
  EXPECT_NE(kept.output.find("kept " + place.site().string() + "/config/server.ini"),
            std::string::npos);
}

TEST(control_init, makes_the_directory_and_the_example) {
  installation place;
  const std::string other = (place.site() / "other" / "deep").string();
  const control_result made = control(place, {"-C", other, "init", "--example"});
  EXPECT_EQ(made.status, 0) << made.errors;
  EXPECT_NE(place.read("other/deep/config/server.ini").find("svr1 = kmd_steady"),
            std::string::npos);
  EXPECT_NE(fs::status(fs::path(other) / "kmd_steady").permissions() & fs::perms::owner_exec,
            fs::perms::none);
}

TEST(control_init, makes_the_directory_that_the_environment_names) {
  installation place;
  ::setenv("KEELMOND_DIR", (place.site() / "named").c_str(), 1);
  const control_result made = control(place, {"init"});
  ::unsetenv("KEELMOND_DIR");
  EXPECT_EQ(made.status, 0) << made.errors;
  EXPECT_TRUE(place.has("named/config/server.ini"));
}

TEST(control_init, puts_no_example_where_the_shell_would_not_find_it) {
  const installation place("a site");
  const control_result made = control(place, {"init", "--example"});
  EXPECT_EQ(made.status, 1);
  EXPECT_NE(made.errors.find("keelmondctl init: the shell would not take"), std::string::npos);
}

TEST(control_up, starts_the_daemon_and_waits_for_its_programs) {
  installation place;
  const std::string first = place.add_steady();
  const std::string second = place.add_steady();
  place.save({place.entry(first), place.entry(second, "stop")});
  const control_result up = control(place, {"up"});
  EXPECT_EQ(up.status, 0) << up.errors;
  EXPECT_NE(up.output.find("1 of 1 programs that are to run are alive"), std::string::npos);
  EXPECT_EQ(place.running(first).size(), 1U);
  EXPECT_EQ(place.starts(second), 0U);
  EXPECT_NE(daemon_of(place), 0);
}

TEST(control_up, leaves_a_daemon_that_runs_alone) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  ASSERT_EQ(control(place, {"up"}).status, 0);
  const pid_t daemon = daemon_of(place);
  const control_result again = control(place, {"up"});
  EXPECT_EQ(again.status, 0) << again.errors;
  EXPECT_NE(again.output.find("keelmond runs already"), std::string::npos);
  EXPECT_EQ(daemon_of(place), daemon);
  place.wait_running(name);
}

TEST(control_up, runs_nothing_as_root_that_another_user_lists) {
  if (::geteuid() != 0) GTEST_SKIP() << "for root alone";
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  const std::string config = (place.site() / "config" / "server.ini").string();
  ASSERT_EQ(::chown(config.c_str(), 12345, 12345), 0);
  for (const char* const more : {"--timeout=30s", "--foreground"}) {
    const control_result up = control(place, {"up", more});
    EXPECT_EQ(up.status, 1);
    EXPECT_TRUE(contains(up.errors, config + " belongs to 12345")) << up.errors;
    EXPECT_TRUE(contains(up.errors, "`runuser -u 12345 -- keelmondctl -C ")) << up.errors;
    EXPECT_EQ(daemon_of(place), 0);
  }
  EXPECT_EQ(control(place, {"up", "--as-root"}).status, 0);
  place.wait_running(name);
  EXPECT_EQ(control(place, {"up"}).status, 0) << "it runs already";
}

TEST(control_up, removes_a_pid_file_that_is_left_over) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  write_file(place.site() / "run.pid", "");
  const control_result up = control(place, {"up"});
  EXPECT_EQ(up.status, 0) << up.errors;
  EXPECT_NE(up.output.find("removed run.pid"), std::string::npos);
  EXPECT_EQ(place.running(name).size(), 1U);
}

TEST(control_up, stops_what_a_killed_daemon_left_running_before_it_starts_it_again) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t before = place.start_with(name);
  ASSERT_EQ(::kill(place.daemon(), SIGKILL), 0);
  ASSERT_TRUE(wait_until([&] { return daemon_of(place) == 0; }));

  const control_result down = control(place, {"status"});
  EXPECT_EQ(down.status, 1);
  EXPECT_NE(down.output.find("left over"), std::string::npos) << down.output;
  const control_result up = control(place, {"up"});
  EXPECT_EQ(up.status, 0) << up.errors;
  EXPECT_NE(up.output.find("stopping " + name + " (PID " + std::to_string(before) + ")"),
            std::string::npos)
      << up.output;
  EXPECT_EQ(place.running(name).size(), 1U);
  EXPECT_NE(place.running(name).front(), before);
  place.wait_running(name, 2);
}

TEST(control_up, finds_left_over_programs_whose_child_of_keelmond_is_gone_too) {
  installation place;
  const std::string name = place.add_steady();
  place.start_with(name);
  const auto children = place.children();
  ::kill(place.daemon(), SIGKILL);
  for (const pid_t child : children)
    ::kill(child, SIGKILL);
  ASSERT_TRUE(wait_until([&] { return daemon_of(place) == 0; }));
  const control_result up = control(place, {"up"});
  EXPECT_EQ(up.status, 0) << up.errors;
  EXPECT_NE(up.output.find("stopping " + name), std::string::npos) << up.output;
  EXPECT_EQ(place.running(name).size(), 1U);
}

TEST(control_up, kills_what_is_left_over_and_ignores_the_signal) {
  installation place;
  const std::string name = place.add_script("trap '' USR2\n" + place.note_start() + place.stay());
  place.start_with(name);
  ::kill(place.daemon(), SIGKILL);
  ASSERT_TRUE(wait_until([&] { return daemon_of(place) == 0; }));
  const control_result up = control(place, {"up", "--timeout", "300ms"});
  EXPECT_NE(up.errors.find(name), std::string::npos) << up.errors;
  EXPECT_NE(up.errors.find("did not end on SIGUSR2 and is killed"), std::string::npos);
  EXPECT_TRUE(wait_until([&] { return place.running(name).size() == 1; }));
  EXPECT_TRUE(wait_until([&] { return place.starts(name) == 2; }));
}

TEST(control_up, starts_one_daemon_when_two_ask_at_once) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  running_control first(place, {"up"});
  running_control second(place, {"up"});
  EXPECT_EQ(first.wait().status, 0) << first.errors();
  EXPECT_EQ(second.wait().status, 0) << second.errors();
  place.wait_running(name);
  EXPECT_EQ((first.output() + second.output()).find("runs already") == std::string::npos, false);
}

TEST(control_up, says_which_program_is_not_alive_and_why) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name), {"kmc_missing", "/nonexistent/kmc_missing", "run"}});
  const control_result up = control(place, {"up"});
  EXPECT_EQ(up.status, 1);
  EXPECT_NE(up.errors.find("keelmondctl up: kmc_missing is not alive: /nonexistent/kmc_missing is "
                           "missing"),
            std::string::npos)
      << up.errors;
}

TEST(control_up, starts_nothing_without_a_configuration) {
  installation place;
  fs::remove(place.site() / "config" / "server.ini");
  const control_result up = control(place, {"up"});
  EXPECT_EQ(up.status, 1);
  EXPECT_NE(up.errors.find("keelmondctl init"), std::string::npos);
  EXPECT_EQ(daemon_of(place), 0);
}

TEST(control_down, shuts_the_daemon_down_with_its_programs) {
  installation place;
  const std::string first = place.add_steady();
  const std::string second = place.add_steady();
  place.save({place.entry(first), place.entry(second)});
  ASSERT_EQ(control(place, {"up"}).status, 0);
  place.wait_running(first);
  const control_result down = control(place, {"down"});
  EXPECT_EQ(down.status, 0) << down.errors;
  EXPECT_TRUE(place.running(first).empty());
  EXPECT_TRUE(place.running(second).empty());
  EXPECT_EQ(daemon_of(place), 0);
  EXPECT_FALSE(place.has("run.pid"));
  EXPECT_EQ(place.starts(first), 1U);
  EXPECT_EQ(control(place, {"down"}).status, 0);
}

TEST(control_down, tells_of_a_second_daemon) {
  installation place;
  place.save(std::vector<listed_program>{});
  ASSERT_EQ(control(place, {"up"}).status, 0);
  // Whoever deletes it and starts again has two.
  fs::remove(place.site() / "run.pid");
  place.start();
  const control_result status = control(place, {"status"});
  EXPECT_TRUE(contains(status.output, "another keelmond runs here as well")) << status.output;
  const control_result first = control(place, {"down"});
  EXPECT_EQ(first.status, 1);
  EXPECT_TRUE(contains(first.errors, "another keelmond runs here as well (PID ")) << first.errors;
  EXPECT_EQ(control(place, {"down"}).status, 0);
  EXPECT_EQ(daemon_of(place), 0);
}

TEST(control_down, names_a_program_that_ignores_the_signal_and_kills_it_on_request) {
  installation place;
  const std::string good = place.add_steady();
  const std::string bad = place.add_script("trap '' USR2\n" + place.note_start() + place.stay());
  place.save({place.entry(good), place.entry(bad)});
  ASSERT_EQ(control(place, {"up"}).status, 0);
  const control_result down = control(place, {"down", "--timeout", "10s"});
  EXPECT_EQ(down.status, 1);
  EXPECT_NE(down.errors.find(bad + " (PID "), std::string::npos) << down.errors;
  EXPECT_EQ(down.errors.find(good), std::string::npos) << down.errors;
  EXPECT_EQ(place.running(bad).size(), 1U);

  const control_result killed = control(place, {"down", "--timeout", "300ms", "--kill"});
  EXPECT_EQ(killed.status, 0) << killed.errors;
  EXPECT_TRUE(place.running(bad).empty());
  EXPECT_EQ(control(place, {"status"}).status, 3);
}

TEST(control_reload, returns_when_the_daemon_has_acted_on_the_file) {
  installation place;
  const std::string first = place.add_steady();
  const std::string second = place.add_steady();
  place.start_with(first);
  // The reload by the save begins a pause, in which the next save is not seen.
  place.edit({place.entry(first)});
  place.save({place.entry(first), place.entry(second)});
  const control_result done = control(place, {"reload"});
  EXPECT_EQ(done.status, 0) << done.errors;
  // One more when the pause is over by now.
  EXPECT_GE(place.loads(), 3U);
  place.wait_running(second);
}

TEST(control_reload, needs_a_daemon) {
  installation place;
  const control_result done = control(place, {"reload"});
  EXPECT_EQ(done.status, 1);
  EXPECT_NE(done.errors.find("keelmondctl reload: no keelmond runs in"), std::string::npos);
  EXPECT_NE(done.errors.find("keelmondctl up"), std::string::npos);
}

TEST(control_command_line, explains_itself_and_refuses_what_it_does_not_know) {
  installation place;
  const control_result help = control(place, {"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.output.find("status"), std::string::npos);
  const control_result unknown = control(place, {"frobnicate"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.output, "");
  EXPECT_EQ(unknown.errors,
            "keelmondctl: there is no command frobnicate. See `keelmondctl --help`.\n");
  EXPECT_EQ(control(place, {"-C", "/", "stat"}).status, 2);
  EXPECT_TRUE(contains(control(place, {}).errors, "there is no command. See"));
  EXPECT_EQ(control(place, {"--version"}).output, "keelmondctl " KEELMOND_VERSION "\n");
  EXPECT_EQ(control(place, {"down", "--timeout", "soon"}).status, 2);
  EXPECT_EQ(control(place, {"-C", "/nonexistent", "up"}).status, 1);
  // These two answer by their exit status, and this is no answer.
  EXPECT_EQ(control(place, {"-C", "/nonexistent", "status"}).status, 4);
  EXPECT_EQ(control(place, {"-C", "/nonexistent", "check"}).status, 2);
  EXPECT_LT(control(place, {"check", ""}).status, 128);
  EXPECT_EQ(control(place, {"metrics", "--textfile", ""}).status, 0);
}
