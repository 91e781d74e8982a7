#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <string>

#include "common/misc/unique_fd.h"
#include "tests/e2e/runner/http_server.h"
#include "tests/e2e/runner/program_files.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

using runner::program_phase;
using runner::program_state;

TEST(runner_restart, the_pause_grows_while_a_program_cannot_stay_up) {
  runner_place place;
  const std::string name =
      place.add(shell_text("echo x >> starts; exit 3", "[restart]\ndelay = 10ms\nlongest = 1h\n"));
  place.start();
  ASSERT_TRUE(wait_until([&] {
    const auto state = place.state(name);
    return state && state->attempt >= 6;
  }));
  const auto state = place.state(name);
  EXPECT_EQ(state->status, "exit 3");
  EXPECT_GE(count(place.read("starts"), "\n"), 6U);
  // The supervisor has seen nothing of all this.
  EXPECT_EQ(count(place.site().log(), "launched sub process"), 1U);
}

TEST(runner_restart, a_program_that_was_up_long_enough_comes_back_after_the_first_pause) {
  runner_place place;
  const std::string name = place.add_steady("[restart]\nsteady = 0\ndelay = 10ms\nlongest = 1h\n");
  place.start();
  program_state state = place.wait_phase(name, program_phase::running);
  for (int round = 0; round < 12; ++round) {
    ::kill(state.pid, SIGKILL);
    state = place.wait_again(name, state.pid);
    EXPECT_EQ(state.attempt, 0U);
  }
}

TEST(runner_restart, gives_up_after_so_many_attempts_and_waits) {
  runner_place place;
  const std::string name =
      place.add(shell_text("echo x >> starts; exit 3",
                           "[restart]\ndelay = 1ms\ngive_up = 3\n[on]\nshell = yes\n"
                           "give_up = echo \"$NAME $STATUS\" > given_up\n"));
  place.start();
  const program_state state = place.wait_phase(name, program_phase::given_up);
  EXPECT_EQ(state.attempt, 3U);
  EXPECT_EQ(place.read("starts"), "x\nx\nx\n");
  EXPECT_EQ(place.wait_text("given_up", name + " 3\n"), name + " 3\n");
  EXPECT_TRUE(keeps([&] { return process_table::is_alive(state.launcher); }));
  place.stop(name);
}

TEST(runner_restart, on_failure_leaves_a_program_alone_that_ended_well) {
  runner_place place;
  const std::string well = place.add(shell_text("echo x >> well", "[restart]\non = failure\n"));
  const std::string badly =
      place.add(shell_text("echo x >> badly; exit 3", "[restart]\non = failure\ndelay = 1ms\n"));
  const std::string never =
      place.add(shell_text("echo x >> never; exit 3", "[restart]\non = never\n"));
  place.start();
  place.wait_phase(well, program_phase::ended);
  EXPECT_EQ(place.wait_phase(never, program_phase::ended).status, "exit 3");
  EXPECT_TRUE(wait_until([&] { return count(place.read("badly"), "\n") >= 3; }));
  EXPECT_EQ(place.read("well"), "x\n");
  EXPECT_EQ(place.read("never"), "x\n");
  EXPECT_FALSE(place.is_ready(well));
}

TEST(runner_restart, a_wrong_file_starts_nothing_and_is_read_again_after_a_growing_pause) {
  runner_place place;
  const std::string name = place.add(shell_text("echo x > started", "[limits]\nnofile = many\n"));
  place.start();
  ASSERT_TRUE(wait_until([&] {
    const auto state = place.state(name);
    return state && state->attempt >= 3;
  }));
  EXPECT_FALSE(place.site().has("programs/started"));
  EXPECT_NE(place.site().errors().find(place.path_of(name) + ":6: nofile: \"many\""),
            std::string::npos);
  EXPECT_EQ(count(place.site().log(), "launched sub process"), 1U);
  place.write(name, shell_text("echo x > started; exec sleep 1000"));
  place.wait_phase(name, program_phase::running);
  EXPECT_EQ(place.wait_text("started", "x\n"), "x\n");
}

TEST(runner_restart, a_file_that_becomes_wrong_while_its_program_runs_counts_from_the_next_start) {
  runner_place place;
  const std::string name = place.add_steady();
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  place.write(name, "[program]\ncommand = 'x\n");
  EXPECT_TRUE(keeps([&] { return process_table::is_alive(state.pid); }));
  ::kill(state.pid, SIGKILL);
  EXPECT_TRUE(wait_until([&] {
    const auto now = place.state(name);
    return now && now->status.find("the quote ' is not closed") != std::string::npos;
  }));
}

TEST(runner_restart, a_failure_runs_a_hook_that_is_told_of_it) {
  runner_place place;
  const std::string name = place.add(shell_text(
      "test -e again && exec sleep 1000; touch again; kill -SEGV $$",
      "[on]\nshell = yes\nfailure = echo \"$NAME|$STATUS|$SIGNAL|$LIVED\" > failed.new && mv "
      "failed.new failed\nready = echo \"$NAME\" >> ready\n"));
  place.start();
  ASSERT_TRUE(wait_until([&] { return place.site().has("programs/failed"); }));
  const std::string told = place.read("failed");
  EXPECT_EQ(told.substr(0, told.rfind('|')), name + "||SEGV");
  place.wait_phase(name, program_phase::running);
  EXPECT_EQ(place.wait_text("ready", name + "\n" + name + "\n"), name + "\n" + name + "\n");
}

TEST(runner_ready, waits_for_a_file) {
  runner_place place;
  const std::string name = place.add_steady("[ready]\nfile = up\n");
  place.start();
  place.wait_phase(name, program_phase::starting);
  EXPECT_TRUE(keeps([&] { return !place.is_ready(name); }));
  write_file(place.path_of("up"), "");
  place.wait_phase(name, program_phase::running);
  EXPECT_TRUE(wait_until([&] { return place.is_ready(name); }));
}

TEST(runner_ready, waits_for_a_command) {
  runner_place place;
  const std::string name = place.add_steady("[ready]\nshell = yes\ncommand = test -e up\n");
  place.start();
  place.wait_phase(name, program_phase::starting);
  EXPECT_TRUE(keeps([&] { return !place.is_ready(name); }));
  write_file(place.path_of("up"), "");
  place.wait_phase(name, program_phase::running);
}

TEST(runner_ready, waits_for_a_socket_of_the_file_system) {
  runner_place place;
  const std::string path = place.path_of("s");
  const std::string name = place.add_steady("[ready]\nunix = s\n");
  place.start();
  place.wait_phase(name, program_phase::starting);
  const unique_fd listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  path.copy(address.sun_path, path.size());
  ASSERT_EQ(::bind(listening.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_TRUE(keeps([&] { return !place.is_ready(name); }));
  ASSERT_EQ(::listen(listening.get(), 16), 0);
  place.wait_phase(name, program_phase::running);
}

TEST(runner_ready, waits_for_a_port_and_for_what_answers_there) {
  if (!has_python()) GTEST_SKIP() << "there is no python3";
  runner_place place;
  const std::string text = "[program]\ncommand = " + add_http_server(place) + " ";
  write_file(place.path_of("ill"), "");
  std::string port = free_port();
  const std::string tcp = place.add(text + port + "\n[ready]\ntcp = " + port + "\n");
  port = free_port();
  const std::string http = place.add(text + port + "\n[ready]\nhttp = " + port + "/health\n");
  place.start();
  place.wait_phase(tcp, program_phase::running);
  place.wait_phase(http, program_phase::starting);
  EXPECT_TRUE(keeps([&] { return !place.is_ready(http); }));
  fs::remove(place.path_of("ill"));
  place.wait_phase(http, program_phase::running);
}

TEST(runner_ready, a_program_that_says_it_while_it_is_to_end_is_ended_all_the_same) {
  if (!has_python()) GTEST_SKIP() << "there is no python3";
  runner_place place;
  const std::string program = place.site().add_executable(
      "#!/usr/bin/python3\n"
      "import os, signal, socket, time\n"
      "s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)\n"
      "def late(*_):\n"
      "  s.sendto(b'READY=1', '\\0' + os.environ['NOTIFY_SOCKET'][1:])\n"
      "signal.signal(signal.SIGTERM, late)\n"
      "open('trapped', 'w')\n"
      "while True: time.sleep(1)\n");
  const std::string name = place.add("[program]\ncommand = " + place.path_of(program) +
                                     "\n[ready]\nnotify = yes\n[stop]\ntimeout = 500ms\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::starting);
  ASSERT_TRUE(wait_until([&] { return place.site().has("programs/trapped"); }));
  place.stop(name);
  EXPECT_TRUE(wait_until([&] { return !process_table::is_alive(state.launcher); }));
  EXPECT_FALSE(process_table::is_alive(state.pid));
}

TEST(runner_ready, a_program_says_it_by_itself) {
  if (!has_python()) GTEST_SKIP() << "there is no python3";
  runner_place place;
  const std::string program = place.site().add_executable(
      "#!/usr/bin/python3\n"
      "import os, socket, time\n"
      "while not os.path.exists('up'): time.sleep(0.01)\n"
      "s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)\n"
      "s.sendto(b'STATUS=fine\\nREADY=1', '\\0' + os.environ['NOTIFY_SOCKET'][1:])\n"
      "time.sleep(1000)\n");
  const std::string name =
      place.add("[program]\ncommand = " + place.path_of(program) + "\n[ready]\nnotify = yes\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::starting);
  // What somebody else says does not count.
  std::string address;
  ASSERT_TRUE(wait_until([&] {
    const std::string all = read_file("/proc/" + std::to_string(state.pid) + "/environ");
    const std::size_t at = all.find("NOTIFY_SOCKET=@");
    if (at != std::string::npos) address = all.substr(at + 15, all.find('\0', at) - at - 15);
    return at != std::string::npos;
  }));
  const unique_fd stranger(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un there{};
  there.sun_family = AF_UNIX;
  address.copy(there.sun_path + 1, address.size());
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + address.size());
  EXPECT_EQ(::sendto(stranger.get(), "READY=1", 7, 0, reinterpret_cast<sockaddr*>(&there), size),
            7);
  EXPECT_TRUE(keeps([&] { return !place.is_ready(name); }));
  write_file(place.path_of("up"), "");
  place.wait_phase(name, program_phase::running);
}

TEST(runner_ready, a_program_that_is_not_ready_in_time_is_ended) {
  runner_place place;
  const std::string name = place.add_steady("[ready]\nfile = never\ntimeout = 0.3\n");
  place.start();
  const program_state state = place.wait_phase(name, program_phase::starting);
  EXPECT_TRUE(wait_until([&] { return !process_table::is_alive(state.pid); }));
  EXPECT_EQ(place.wait_phase(name, program_phase::waiting).status,
            "not ready within 0.3 s (signal TERM)");
}

TEST(runner_needs, a_program_waits_for_those_that_it_needs) {
  runner_place place;
  const std::string first = place.add_steady("[ready]\nfile = up\n");
  const std::string second =
      place.add(shell_text("echo x > second; exec sleep 1000", "needs = " + first));
  place.start();
  place.wait_phase(second, program_phase::needs);
  place.wait_phase(first, program_phase::starting);
  EXPECT_TRUE(keeps([&] { return !place.site().has("programs/second"); }));
  write_file(place.path_of("up"), "");
  place.wait_phase(second, program_phase::running);
}

TEST(runner_needs, a_program_whose_needs_are_not_met_in_time_tries_again) {
  runner_place place;
  const std::string name =
      place.add(shell_text("echo x > started", "needs = kmd_missing\nneeds_timeout = 100ms\n"));
  place.start();
  EXPECT_NE(place.wait_phase(name, program_phase::waiting).status.find("kmd_missing is not ready"),
            std::string::npos);
  EXPECT_FALSE(place.site().has("programs/started"));
}

TEST(runner_needs, a_ready_file_that_a_killed_launcher_left_does_not_count) {
  runner_place place;
  const std::string name = place.add(
      shell_text("echo x > started; exec sleep 1000", "needs = kmd_gone\nneeds_timeout = 1h\n"));
  write_file(place.site().site() / "notify" / "kmd_gone.ready", "1");
  write_file(place.site().site() / "notify" / "kmd_gone.state",
             "phase running\nlauncher 1\nlauncher_started 1\n");
  place.start();
  place.wait_phase(name, program_phase::needs);
  EXPECT_TRUE(keeps([&] { return !place.site().has("programs/started"); }));
}

TEST(runner_ready, what_a_killed_launcher_left_does_not_make_a_program_ready) {
  runner_place place;
  const std::string name = place.add_steady("[ready]\nfile = never\n");
  const std::string other =
      place.add(shell_text("echo x > started; exec sleep 1000", "needs = " + name + "\n"));
  write_file(place.site().site() / "notify" / (name + ".ready"), "1");
  place.start();
  place.wait_phase(name, program_phase::starting);
  place.wait_phase(other, program_phase::needs);
  EXPECT_FALSE(place.is_ready(name));
  EXPECT_TRUE(keeps([&] { return !place.site().has("programs/started"); }));
}
