#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "runner/log/rotated_name.h"
#include "tests/e2e/runner/program_files.h"
#include "tests/e2e/support/children.h"
#include "tests/e2e/support/private_namespace.h"
#include "tests/runner/log/message_socket.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

using runner::program_phase;
using runner::program_state;

namespace {

constexpr std::chrono::seconds kLimit{30};

/// A program that prints on both of its outputs and fails, and has the section [log] with `log`.
std::string add_talker(runner_place& place, const std::string& log) {
  return place.add(shell_text("echo out; echo err >&2; exit 3",
                              "[restart]\ndelay = 1h\nlongest = 1h\n[log]\n" + log));
}

/// Has the sockets of the local syslog and of the journal be those in a directory, for this process
/// and what it executes.
void redirect_sockets(const fs::path& place) {
  const fs::path devices = place / "devices";
  const bool is_mounted =
      private_namespace::enter_own_mounts() &&
      ::mount("/dev", devices.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
      ::mount("tmpfs", "/dev", "tmpfs", 0, "mode=755") == 0 &&
      ::mount("tmpfs", "/run", "tmpfs", 0, "mode=755") == 0;
  if (!is_mounted) ::_exit(1);
  // All other devices are where they were, by links to where they are now.
  for (const auto& device : fs::directory_iterator(devices)) {
    const fs::path name = device.path().filename();
    if (name != "log") fs::create_symlink(device.path(), "/dev" / name);
  }
  fs::create_symlink(place / "syslog", "/dev/log");
  fs::create_directories("/run/systemd/journal");
  fs::create_symlink(place / "journal", "/run/systemd/journal/socket");
}

bool can_redirect(const fs::path& place) {
  const pid_t child = ::fork();
  if (child == 0) {
    redirect_sockets(place);
    ::_exit(0);
  }
  children::announce(child);
  return children::wait_for_end(child) == 0;
}

/// What has come in, when it is as many messages as expected.
std::vector<std::string> received(const message_socket& socket, std::size_t count) {
  std::vector<std::string> all;
  wait_until(
      [&] {
        for (const std::string& one : socket.messages())
          all.push_back(one);
        return all.size() >= count;
      },
      kLimit);
  return all;
}

/// A supervisor whose programs find the test's own syslog and journal.
class runner_log_messages : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directory(directory_ / "devices");
    if (!can_redirect(directory_)) GTEST_SKIP() << "nothing can be mounted here";
  }
  program_state run(const std::string& name) {
    start_options options;
    options.before_exec = [this] { redirect_sockets(directory_); };
    place_.start(options);
    return place_.wait_phase(name, program_phase::waiting);
  }

  runner_place place_;
  fs::path directory_ = place_.site().site();
};

}  // namespace

TEST_F(runner_log_messages, go_to_the_local_syslog_under_the_name_of_the_program) {
  const message_socket syslog((directory_ / "syslog").string());
  const std::string name = add_talker(place_, "to = syslog\n");
  const program_state state = run(name);
  const auto messages = received(syslog, 3);
  ASSERT_EQ(messages.size(), 3U);
  const std::string head = " " + name + "[" + std::to_string(state.launcher) + "]: ";
  const char* const texts[] = {"out", "err", "keelmond-run: ended: exit 3; next start in 3600 s"};
  for (std::size_t i = 0; i < messages.size(); ++i) {
    EXPECT_TRUE(messages[i].starts_with("<30>")) << messages[i];
    EXPECT_TRUE(messages[i].ends_with(head + texts[i])) << messages[i];
  }
}

TEST_F(runner_log_messages, go_to_the_journal_with_its_fields) {
  const message_socket journal((directory_ / "journal").string());
  const std::string name = add_talker(place_, "to = journal\n");
  run(name);
  const std::string head =
      "PRIORITY=6\nSYSLOG_FACILITY=3\nSYSLOG_IDENTIFIER=" + name + "\nMESSAGE=";
  EXPECT_EQ(
      received(journal, 3),
      (std::vector<std::string>{head + "out\n", head + "err\n",
                                head + "keelmond-run: ended: exit 3; next start in 3600 s\n"}));
}

TEST_F(runner_log_messages, are_lost_where_nobody_listens_and_the_program_runs_on) {
  const std::string name =
      place_.add(shell_text("for i in 1 2 3 4 5; do echo $i; done; touch through; exit 3",
                            "[restart]\ndelay = 1h\nlongest = 1h\n[log]\nto = journal\n"));
  run(name);
  EXPECT_TRUE(place_.site().has("programs/through"));
}

TEST(runner_log, that_is_inherited_says_of_whom_a_line_of_the_launcher_is) {
  runner_place place;
  const std::string unset =
      place.add(shell_text("exit 3", "[restart]\nlongest = 1h\ndelay = 1h\n"));
  const std::string inherited = add_talker(place, "to = inherit\n");
  place.start();
  for (const std::string& name : {unset, inherited})
    EXPECT_TRUE(place.tells("keelmond-run: " + name + ": ended: exit 3; next start in 3600 s\n"));
}

TEST(runner_log, goes_where_the_supervisors_output_goes_unless_set_and_when_inherited) {
  runner_place place;
  place.add(shell_text("echo out 1; echo err 1 >&2; exec sleep 1000"));
  place.add(shell_text("echo out 2; echo err 2 >&2; exec sleep 1000", "[log]\nto = inherit\n"));
  place.start();
  for (const std::string number : {"1", "2"}) {
    EXPECT_TRUE(wait_until([&] { return contains(place.site().console(), "out " + number); }));
    EXPECT_TRUE(place.tells("err " + number + "\n"));
  }
}

TEST(runner_log, goes_to_a_file_that_the_launcher_writes_to_as_well) {
  runner_place place;
  const std::string name = place.add(
      "[program]\nshell = yes\ncommand = echo out; echo err >&2; exit 3\n"
      "[log]\nfile = the.log\n[restart]\ndelay = 1h\nlongest = 1h\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::waiting);
  EXPECT_EQ(state.log, place.path_of("the.log"));
  const std::string all = "out\nerr\nkeelmond-run: ended: exit 3; next start in 3600 s\n";
  EXPECT_EQ(place.wait_text("the.log", all), all);
}

TEST(runner_log, has_a_file_of_its_own_for_standard_error) {
  runner_place place;
  const std::string name = add_talker(place, "file = out.log\nstderr = err.log\n");
  place.start();
  place.wait_phase(name, program_phase::waiting);
  EXPECT_EQ(place.wait_text("err.log", "err\n"), "err\n");
  const std::string all = "out\nkeelmond-run: ended: exit 3; next start in 3600 s\n";
  EXPECT_EQ(place.wait_text("out.log", all), all);
}

TEST(runner_log, keeps_so_many_rotated_files_of_that_size) {
  runner_place place;
  place.add(shell_text("for i in $(seq 1000); do echo a line of text $i; done; exec sleep 1000",
                       "[log]\nfile = x.log\nsize = 2000\nkeep = 3\n"));
  place.start();
  EXPECT_TRUE(wait_until([&] { return place.read("x.log").ends_with(" 1000\n"); }, kLimit));
  const std::string log = place.path_of("x.log");
  EXPECT_TRUE(wait_until([&] { return runner::find_rotated(log).size() == 3; }));
  for (const auto& one : runner::find_rotated(log)) {
    const auto size = fs::file_size(runner::rotated_path(log, one));
    EXPECT_GT(size, 1900U);
    EXPECT_LE(size, 2000U);
  }
}

TEST(runner_log, is_rotated_when_it_is_so_old_without_another_line) {
  runner_place place;
  place.add(shell_text("echo one; exec sleep 1000", "[log]\nfile = x.log\nage = 1s\n"));
  place.start();
  const std::string log = place.path_of("x.log");
  ASSERT_TRUE(wait_until([&] { return runner::find_rotated(log).size() == 1; }, kLimit));
  EXPECT_EQ(read_file(runner::rotated_path(log, runner::find_rotated(log).front())), "one\n");
  EXPECT_EQ(place.read("x.log"), "");
}

TEST(runner_log, is_compressed_when_it_is_rotated) {
  runner_place place;
  place.add(shell_text("echo one; echo two; exec sleep 1000",
                       "[log]\nfile = x.log\nsize = 6\ncompress = yes\n"));
  place.start();
  const auto is_compressed = [&] {
    const auto all = runner::find_rotated(place.path_of("x.log"));
    return all.size() == 1 && all.front().what == runner::rotated_name::kind::compressed;
  };
  EXPECT_TRUE(wait_until(is_compressed, kLimit));
  EXPECT_EQ(place.wait_text("x.log", "two\n"), "two\n");
}

TEST(runner_log, that_is_full_never_stops_the_program) {
  runner_place place;
  const std::string name = place.add(shell_text(
      "i=0; while [ $i -lt 3000 ]; do i=$((i + 1)); "
      "echo 0123456789012345678901234567890123456789012345678901234567890123456789; done; "
      "echo through > through; exec sleep 1000",
      "[log]\nfile = /dev/full\n"));
  place.start();
  EXPECT_EQ(place.wait_text("through", "through\n"), "through\n");
  EXPECT_EQ(place.state(name)->phase, program_phase::running);
}
