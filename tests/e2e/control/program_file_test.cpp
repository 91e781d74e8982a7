#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace {

/// A supervisor without programs, and a name that no other process has.
struct empty_place {
  empty_place() {
    place.save(std::vector<listed_program>{});
    place.start();
    const std::string used = place.add_steady();
    name = "f" + used.substr(0, 10);
  }

  [[nodiscard]] control_result add(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"add", name});
    return control(place, arguments);
  }
  [[nodiscard]] std::string row() const { return row_of(control(place, {"status"}).output, name); }

  installation place;
  std::string name;
};

}  // namespace

TEST(control_add, writes_a_program_file_for_a_command) {
  const empty_place here;
  const control_result done =
      here.add({"--env", "GREETING=it's here", "--log", "out.log", "--", "sh", "-c",
                "echo $GREETING $1; exec sleep 1000", "status", "--all"});
  EXPECT_EQ(done.status, 0) << done.errors;
  EXPECT_TRUE(wait_until([&] { return here.place.read("out.log") == "it's here --all\n"; }))
      << here.place.read("out.log");
  EXPECT_TRUE(contains(here.row(), "run running")) << here.row();
  EXPECT_TRUE(contains(here.place.read(here.name), "#!" KEELMOND_RUN_BINARY "\n[program]\n"));
  EXPECT_EQ(control(here.place, {"check"}).status, 0) << control(here.place, {"check"}).output;
}

TEST(control_add, takes_every_key_of_a_program_file) {
  const empty_place here;
  const control_result done = here.add(
      {"--set", "program.umask=077", "--set", "environment.GREETING=a = b", "--set",
       "stop.signal=INT", "--", "sh", "-c", "echo \"$GREETING $(umask)\" > out; exec sleep 1000"});
  EXPECT_EQ(done.status, 0) << done.errors;
  EXPECT_TRUE(wait_until([&] { return here.place.read("out") == "a = b 0077\n"; }))
      << here.place.read("out");
  EXPECT_TRUE(contains(here.place.read(here.name), "\n[stop]\nsignal = INT\n"));
}

TEST(control_add, keeps_the_file_that_the_list_names_when_it_is_not_loaded_in_time) {
  const empty_place here;
  here.place.signal(SIGSTOP);
  const control_result done = here.add({"--stopped", "--timeout", "200ms", "--", "sleep", "5"});
  here.place.signal(SIGCONT);
  EXPECT_EQ(done.status, 1) << done.output;
  EXPECT_TRUE(contains(here.place.read("config/server.ini"), here.name));
  EXPECT_TRUE(here.place.has(here.name));
}

TEST(control_add, leaves_no_file_behind_for_what_it_refuses) {
  const empty_place here;
  const auto is_refused = [&](const std::vector<std::string>& arguments, const std::string& why) {
    const control_result done = here.add(arguments);
    EXPECT_NE(done.status, 0);
    EXPECT_TRUE(contains(done.errors, why)) << done.errors;
    EXPECT_FALSE(here.place.has(here.name));
  };
  is_refused({"--user", "no_such_user_here", "--", "sleep", "5"}, "user: no user is called");
  is_refused({"--log", "out.log"}, "go with a command");
  is_refused({"--set", "stop.timeout=soon", "--", "sleep", "5"}, "timeout: \"soon\"");
  is_refused({"--set", "stop.timeout=1s"}, "command: there is no command");
  is_refused({"--", "./" + here.name + ".py"}, "fits its own command " + here.name + ".py");
  is_refused({"--exepath", "/nonexistent/file", "--", "sleep", "5"}, "cannot write");
  write_file(here.place.site() / here.name, "mine");
  EXPECT_TRUE(contains(here.add({"--", "sleep", "5"}).errors, "is there already"));
  EXPECT_EQ(here.place.read(here.name), "mine");
}

TEST(control_status, tells_what_the_launcher_of_a_program_waits_for) {
  const empty_place here;
  EXPECT_EQ(here.add({"--stopped", "--", "sh", "-c", "exit 3"}).status, 0);
  write_file(here.place.site() / here.name,
             here.place.read(here.name) + "[restart]\ndelay = 1h\nlongest = 1h\n");
  // The program may be seen alive for a moment.
  control(here.place, {"start", here.name, "--timeout", "100ms"});
  ASSERT_TRUE(wait_until([&] { return contains(here.row(), "waiting"); }, std::chrono::seconds(30)))
      << here.row();
  EXPECT_TRUE(contains(here.row(), ", attempt 1: exit 3")) << here.row();
  EXPECT_TRUE(contains(control(here.place, {"status"}).output, ": 1 waiting\n"));
  EXPECT_EQ(control(here.place, {"status", here.name}).status, 3);
  const auto one =
      nlohmann::json::parse(control(here.place, {"status", "--json"}).output).at("programs").at(0);
  EXPECT_EQ(one.at("actual"), "waiting");
  EXPECT_TRUE(one.at("pid").is_null());
  EXPECT_TRUE(process_table::is_alive(one.at("launcher_pid").get<pid_t>()));
  EXPECT_EQ(control(here.place, {"wait", here.name, "--timeout", "100ms"}).status, 1);
  running_control wait(here.place, {"wait", here.name});
  write_file(here.place.site() / here.name,
             "#!" KEELMOND_RUN_BINARY "\n[program]\ncommand = sleep 1000\n");
  EXPECT_EQ(control(here.place, {"restart", here.name}).status, 0);
  EXPECT_EQ(wait.wait().status, 0) << wait.errors();
  EXPECT_EQ(control(here.place, {"stop", here.name}).status, 0);
  EXPECT_TRUE(contains(here.row(), "stop stopped")) << here.row();
}

TEST(control_status, shows_the_process_behind_a_launcher) {
  const empty_place here;
  ASSERT_EQ(here.add({"--", "sleep", "1000"}).status, 0);
  const auto one =
      nlohmann::json::parse(control(here.place, {"status", "--json"}).output).at("programs").at(0);
  const auto sleeper = one.at("pid").get<pid_t>();
  EXPECT_TRUE(wait_until([&] {
    const auto found = process_table::find(sleeper);
    return found && found->name == "sleep";
  }));
  const control_result restart = control(here.place, {"restart", here.name});
  EXPECT_EQ(restart.status, 0) << restart.errors;
  EXPECT_TRUE(wait_until([&] { return !process_table::is_alive(sleeper); }));
}

TEST(control_check, reads_program_files_by_their_own_rules) {
  const empty_place here;
  ASSERT_EQ(here.add({"--stopped", "--", "sleep", "1000"}).status, 0);
  const std::string file = (here.place.site() / here.name).string();
  const std::string text = here.place.read(here.name);
  const auto check = [&](const std::string& whole) {
    write_file(file, whole);
    return control(here.place, {"check"});
  };
  const control_result key = check(text + "usr = x\n");
  EXPECT_EQ(key.status, 2);
  EXPECT_TRUE(contains(key.output, file + ":4: error: usr: [program] has no such key; "))
      << key.output;
  EXPECT_TRUE(contains(control(here.place, {"check", "--json"}).output, "\"file\": \"" + file));
  const control_result needs = check(text + "needs = kmc_none\n");
  EXPECT_EQ(needs.status, 1);
  EXPECT_TRUE(contains(needs.output, file + ":4: warning: needs: there is no program kmc_none"))
      << needs.output;
  EXPECT_EQ(check(text + "needs = " + here.name + "\n").status, 2);
  const control_result none = check("#!/nonexistent/keelmond-run\n[program]\ncommand = true\n");
  EXPECT_TRUE(contains(none.output, file + ":1: error: there is no program /nonexistent/"))
      << none.output;
  EXPECT_EQ(check(text).status, 0);
}
