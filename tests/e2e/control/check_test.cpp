#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/control/config/random_config.h"
#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace {

/// What the console says that the loads from `begin` on made of their entries: "NAME run" or "NAME
/// stop" for each that had an effect, in order.
std::vector<std::string> effects(const std::string& console) {
  std::vector<std::string> found;
  constexpr std::string_view kBegin = "monitor ";
  for (std::size_t at = console.find(kBegin); at != std::string::npos;
       at = console.find(kBegin, at + 1)) {
    const std::size_t end = console.find("\r\n", at);
    const std::string line = console.substr(at + kBegin.size(), end - at - kBegin.size());
    if (contains(line, " Start 22.")) continue;
    const std::size_t stop = line.rfind(" stopped");
    const std::size_t run = line.rfind(" Start ");
    found.push_back(stop != std::string::npos ? line.substr(0, stop) + " stop"
                                              : line.substr(0, run) + " run");
  }
  return found;
}

std::vector<std::string> predicted(const nlohmann::json& check) {
  std::vector<std::string> found;
  for (const auto& entry : check.at("loaded")) {
    const std::string state = entry.at("state");
    if (state == "run" || state == "stop")
      found.push_back(entry.at("name").get<std::string>() + " " + state);
  }
  return found;
}

/// A file that lists programs and goes on with `text`, in which paths are of programs that stay.
std::string listing(const installation& place, std::string text) {
  for (std::size_t at; (at = text.find("/bin/true")) != std::string::npos;)
    text.replace(at, 9, (place.site() / "alpha").string());
  return "[alpha]\nstate=run\n[beta]\nstate=stop\n[kmd_web]\nstate=stop\n[keelmond]\nlinux=4\n"
         "svr1=alpha\nsvr2=beta\nsvr3=gamma\nsvr4=kmd_web\n" +
         text;
}

}  // namespace

TEST(control_check, answers_by_its_exit_status) {
  installation place;
  const std::string name = place.add_steady();
  fs::permissions(place.site() / "programs" / name, fs::perms(0755));
  place.save({place.entry(name)});
  const control_result clean = control(place, {"check"});
  EXPECT_EQ(clean.status, 0) << clean.output;
  EXPECT_EQ(clean.output, "config/server.ini: nothing found\n");
  place.save(server_ini({place.entry(name)}) + "what is this\n");
  const control_result warned = control(place, {"check"});
  EXPECT_EQ(warned.status, 1) << warned.output;
  EXPECT_TRUE(contains(warned.output, "config/server.ini:7: warning: this line means nothing; "))
      << warned.output;
  place.save({{name, "/nonexistent/" + name, "run"}});
  const control_result failed = control(place, {"check"});
  EXPECT_EQ(failed.status, 2);
  EXPECT_TRUE(contains(failed.output, "config/server.ini:5: error: entry svr1 is skipped"))
      << failed.output;
  EXPECT_EQ(control(place, {"check", "nosuch.ini"}).status, 2);
}

TEST(control_check, checks_another_file_in_its_place) {
  installation place;
  write_file(place.site() / "draft.ini", "[keelmond]\nlinux=1\n");
  const control_result done = control(place, {"check", "draft.ini"});
  EXPECT_EQ(done.status, 1) << done.output;
  EXPECT_TRUE(contains(done.output, "draft.ini:2: warning: linux says")) << done.output;
}

TEST(control_check, knows_a_file_that_the_daemon_may_not_write) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may write everything";
  installation place;
  fs::permissions(place.site() / "config" / "server.ini", fs::perms(0444));
  const control_result done = control(place, {"check"});
  EXPECT_EQ(done.status, 2);
  EXPECT_TRUE(contains(done.output, "it counts as empty")) << done.output;
}

TEST(control_plan, knows_a_file_that_the_daemon_may_not_write) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may write everything";
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  fs::permissions(place.site() / "config" / "server.ini", fs::perms(0444));
  place.spawn();
  ASSERT_TRUE(wait_until([&] { return daemon_of(place) != 0; }));
  const std::string row = row_of(control(place, {"status"}).output, name);
  EXPECT_TRUE(contains(row, "run not loaded")) << row;
  EXPECT_TRUE(contains(row, "it counts as empty")) << row;
  const std::string plan = control(place, {"plan"}).output;
  EXPECT_TRUE(contains(plan, "so it counts as empty")) << plan;
  EXPECT_FALSE(contains(plan, "is started")) << plan;
}

TEST(control_plan, says_what_a_load_would_do) {
  installation place;
  const std::string runs = place.add_steady();
  const std::string idle = place.add_steady();
  place.save({place.entry(runs), place.entry(idle, "stop")});
  place.start();
  const pid_t pid = place.wait_running(runs);
  write_file(place.site() / "draft.ini",
             server_ini({place.entry(idle), {"kmc_none", "/nonexistent", "run"}}));
  const control_result plan = control(place, {"plan", "draft.ini"});
  EXPECT_EQ(plan.status, 0) << plan.errors;
  EXPECT_TRUE(contains(row_of(plan.output, idle), "is started: ")) << plan.output;
  EXPECT_TRUE(contains(row_of(plan.output, "kmc_none"), "its entry is skipped")) << plan.output;
  EXPECT_TRUE(contains(row_of(plan.output, runs), "(PID " + std::to_string(pid) + "), supervised"))
      << plan.output;
  const control_result present = control(place, {"plan"});
  EXPECT_TRUE(contains(row_of(present.output, idle), "stays stopped")) << present.output;
  const control_result nothing = control(place, {"plan", "/dev/null"});
  EXPECT_TRUE(contains(nothing.errors, "cannot read /dev/null")) << nothing.errors;
  write_file(place.site() / "empty.ini", "");
  EXPECT_TRUE(contains(control(place, {"-C", ".", "plan", "empty.ini"}).output, runs));
  place.shut_down_by(SIGUSR2);
  EXPECT_TRUE(wait_until([&] {
    return contains(control(place, {"plan", "empty.ini"}).output, "\nno programs\n");
  }));
}

// The daemon is the judge: what `check` says a load acts on is what a load acts on.
TEST(control_check, says_of_any_file_what_the_daemon_makes_of_it) {
  installation place;
  // The names that the random files use, as programs without exepath and with it.
  for (const char* const name : {"alpha", "beta", "gamma", "kmd_web", "be", "x"})
    place.write_script(place.site() / name, "trap '' USR2\n" + place.stay());
  place.start();
  int acted = 0;
  for (unsigned seed = 0; seed < 60; ++seed) {
    const std::string text = listing(place, random_config(seed).text());
    place.save(text);
    const nlohmann::json check = nlohmann::json::parse(control(place, {"check", "--json"}).output);
    const std::size_t begin = place.console().size();
    ASSERT_EQ(control(place, {"reload"}).status, 0);
    // A save may have been seen as well: then the same is done twice.
    const std::vector<std::string> expected = predicted(check);
    std::vector<std::string> happened = effects(place.console().substr(begin));
    if (happened.size() > expected.size()) {
      happened.erase(happened.begin(), happened.end() - std::ssize(expected));
    }
    ASSERT_EQ(happened, expected) << text;
    acted += static_cast<int>(expected.size());
  }
  EXPECT_GT(acted, 30);
}
