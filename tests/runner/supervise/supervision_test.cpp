#include "runner/supervise/supervision.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>

#include "runner/file/process_stat.h"
#include "runner/supervise/mark.h"
#include "tests/runner/supervise/launcher_place.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/wait_until.h"

using runner::program_phase;
using runner::program_state;

namespace {

bool is_datagram_socket(int fd) {
  int type = 0;
  socklen_t size = sizeof type;
  return ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_DGRAM;
}

/// From now on, whoever waits is told that there is something at each datagram socket.
void have_sockets_always_ready() {
  faults.poll = [](pollfd* requests, nfds_t count, int limit) {
    bool any = false;
    for (nfds_t i = 0; i < count; ++i)
      any = any || is_datagram_socket(requests[i].fd);
    int ready = real::poll(requests, count, any ? 0 : limit);
    for (nfds_t i = 0; i < count; ++i) {
      if (!is_datagram_socket(requests[i].fd) || requests[i].revents != 0) continue;
      requests[i].revents = POLLIN;
      ++ready;
    }
    return ready;
  };
}

/// From now on, one child after the other has ended that nobody knows, but for each thousandth.
void have_strangers_end() {
  faults.waitpid = [asked = 0](pid_t pid, int* status, int options) mutable {
    if (++asked % 1000 == 0) {
      const pid_t ended = real::waitpid(pid, status, options);
      if (ended > 0) return ended;
    }
    constexpr pid_t kNobody = 1 << 30;
    if (status != nullptr) *status = 0;
    return kNobody;
  };
}

/// From now on, the end of a child that was killed is told with that of the next one, and before
/// it.
void have_killed_children_end_late() {
  struct end {
    pid_t pid = 0;
    int status = 0;
  };
  faults.waitpid = [is_first = true, held = end{}, next = end{}](pid_t pid, int* status,
                                                                 int options) mutable {
    if (status == nullptr) return real::waitpid(pid, status, options);
    if (const end ready = std::exchange(next, {}); ready.pid > 0) {
      *status = ready.status;
      return ready.pid;
    }
    const pid_t ended = real::waitpid(pid, status, options);
    if (ended <= 0) return ended;
    if (WIFSIGNALED(*status) && std::exchange(is_first, false)) {
      held = {ended, *status};
      return 0;
    }
    if (held.pid == 0) return ended;
    next = {ended, *status};
    *status = held.status;
    return std::exchange(held, {}).pid;
  };
}

/// From now on, files say that a process group has been found to be over, and that one was
/// signalled that had been.
void have_groups_watched(const scratch_dir& place) {
  faults.kill = [&place, over = pid_t{0}](pid_t pid, int signal) mutable {
    const int result = real::kill(pid, signal);
    const int reason = errno;
    if (pid < -1 && pid == over) place.write("signalled", std::to_string(signal));
    if (pid < -1 && result != 0 && reason == ESRCH) {
      over = pid;
      place.write("over", std::to_string(pid));
    }
    errno = reason;
    return result;
  };
}

/// Whether a process has an inotify instance.
bool has_watch(pid_t pid) {
  const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
  return std::any_of(begin(all), end(all), [](const auto& one) {
    std::error_code gone;
    return std::filesystem::read_symlink(one, gone) == "anon_inode:inotify";
  });
}

}  // namespace

TEST(supervision, waits_for_what_is_needed_without_a_watch_that_others_could_lack) {
  launcher_place place;
  place.write("needs = other\nneeds_timeout = 1h\ncommand = sleep 1000\n");
  place.start();
  std::ignore = place.wait_phase(program_phase::needs);
  // What it holds while it waits, it holds by then.
  ASSERT_TRUE(wait_until([&] { return runner::read_process_stat(place.pid())->state == 'S'; }));
  EXPECT_FALSE(has_watch(place.pid()));
  const runner::state_files other(place.directory().path().string(), "other");
  program_state state;
  state.phase = program_phase::running;
  state.launcher = ::getpid();
  state.launcher_started = runner::read_process_stat(state.launcher)->started;
  other.write(state);
  other.set_ready(true);
  EXPECT_NE(place.wait_phase(program_phase::running).pid, 0);
}

TEST(supervision, what_is_due_is_done_beside_a_descriptor_that_is_always_ready) {
  launcher_place place;
  place.write(
      "command = sleep 1000\n[ready]\nnotify = yes\ntimeout = 100ms\n[restart]\ndelay = 1h\n"
      "longest = 1h\n");
  place.start(have_sockets_always_ready);
  EXPECT_EQ(place.wait_phase(program_phase::waiting).status,
            "not ready within 0.1 s (signal TERM)");
}

TEST(supervision, what_is_due_is_done_while_children_end_without_an_end) {
  launcher_place place;
  place.write(
      "before = true\ncommand = sleep 1000\n[ready]\nfile = never\ntimeout = "
      "100ms\n[restart]\ndelay = 1h\n"
      "longest = 1h\n");
  place.start(have_strangers_end);
  EXPECT_EQ(place.wait_phase(program_phase::waiting).status,
            "not ready within 0.1 s (signal TERM)");
}

TEST(supervision, ends_what_a_killed_launcher_left_in_sessions_of_their_own) {
  // What is left becomes a child of this process, which ends with the test.
  in_child([] {
    launcher_place place;
    place.write(
        "shell = yes\ncommand = setsid sh -c 'echo $$ > new && mv new left; exec sleep 1000'"
        " & exec sleep 1000\n");
    place.start();
    const program_state first = place.wait_phase(program_phase::running);
    ASSERT_TRUE(wait_until([&] { return place.directory().has("left"); }));
    const pid_t left = std::stoi(place.directory().read("left"));
    std::filesystem::remove(place.directory().file("left"));
    place.send(SIGKILL);
    ASSERT_TRUE(place.wait_end());
    ASSERT_TRUE(wait_until([&] { return !runner::read_process_stat(first.pid); }));
    ASSERT_TRUE(runner::read_process_stat(left));
    place.start();
    ASSERT_TRUE(wait_until([&] { return place.directory().has("left"); }));
    EXPECT_FALSE(runner::read_process_stat(left));
    EXPECT_NE(place.wait_phase(program_phase::running).mark, first.mark);
  });
}

TEST(supervision, tells_that_it_clears_up_and_leaves_the_traces_to_the_next_one) {
  in_child([] {
    launcher_place place;
    place.write("command = sleep 1000\n");
    const pid_t left = real::fork();
    if (left == 0) {
      ::setsid();
      ::execlp("sleep", "sleep", "1000", nullptr);
      ::_exit(127);
    }
    ASSERT_TRUE(wait_until([&] { return ::getsid(left) == left; }));
    program_state former;
    former.phase = program_phase::running;
    former.mark = runner::make_mark();
    former.pid = left;
    former.started = runner::read_process_stat(left)->started;
    runner::state_files(place.directory().path().string(), place.name()).write(former);
    // It does not end, until the test ends it.
    place.start([left] {
      have_no_process_handles();
      faults.kill = [left](pid_t pid, int signal) {
        return pid == left ? 0 : real::kill(pid, signal);
      };
    });
    const program_state state = place.wait_phase(program_phase::reading);
    EXPECT_EQ(state.mark, former.mark);
    EXPECT_EQ(state.pid, left);
    EXPECT_NE(state.launcher, 0);
    real::kill(left, SIGKILL);
    EXPECT_NE(place.wait_phase(program_phase::running).mark, former.mark);
  });
}

TEST(supervision, what_comes_before_a_program_is_no_life_of_it) {
  launcher_place place;
  place.write(
      "shell = yes\nbefore = sleep 0.3; false\ncommand = true\n[restart]\ndelay = 1ms\n"
      "steady = 200ms\n[on]\nshell = yes\nfailure = echo $LIVED > lived\n");
  place.start();
  EXPECT_TRUE(wait_until([&] {
    const auto state = place.state();
    return state && state->attempt >= 2;
  }));
  EXPECT_EQ(place.wait_text("lived", "0\n"), "0\n");
}

TEST(supervision, a_group_that_is_over_is_not_signalled_though_the_stop_command_goes_on) {
  launcher_place place;
  place.write(
      "command = sleep 1000\n[stop]\nshell = yes\ntimeout = 1h\n"
      "command = kill $PID; until test -e go; do sleep 0.01; done\n");
  place.start([&] { have_groups_watched(place.directory()); });
  const program_state state = place.wait_phase(program_phase::running);
  place.send(SIGUSR2);
  EXPECT_EQ(place.wait_text("over", std::to_string(-state.pid)), std::to_string(-state.pid));
  place.directory().write("go", "");
  ASSERT_TRUE(place.wait_end());
  EXPECT_EQ(place.directory().read("signalled"), "");
}

TEST(supervision, what_a_killed_question_says_is_no_answer_to_the_next_one) {
  launcher_place place;
  place.write(
      "command = sleep 1000\n[health]\nshell = yes\nevery = 10ms\ntimeout = 2s\nfailures = 2\n"
      "command = test -e first && { echo >> good; exit 0; }; touch first; exec sleep 1000\n");
  place.start(have_killed_children_end_late);
  const program_state state = place.wait_phase(program_phase::running);
  ASSERT_TRUE(wait_until([&] { return place.directory().read("good").size() >= 2; }));
  EXPECT_EQ(place.state()->pid, state.pid);
  EXPECT_EQ(place.state()->phase, program_phase::running);
}

TEST(supervision, a_program_that_asks_for_more_time_has_it_and_says_why) {
  if (!std::filesystem::exists("/usr/bin/python3")) GTEST_SKIP() << "there is no python3";
  launcher_place place;
  place.directory().write("program.py",
                          "import os, socket, time\n"
                          "s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)\n"
                          "s.connect('\\0' + os.environ['NOTIFY_SOCKET'][1:])\n"
                          "s.send(b'STATUS=reading\\nEXTEND_TIMEOUT_USEC=3600000000')\n"
                          "while not os.path.exists('go'): time.sleep(0.01)\n"
                          "s.send(b'READY=1')\n"
                          "time.sleep(1000)\n");
  place.write("command = python3 program.py\n[ready]\nnotify = yes\ntimeout = 1s\n");
  place.start();
  // One that takes longer until it asks is ended, and tried again.
  const auto reads = [&] {
    const auto state = place.state();
    return state && state->says == "reading";
  };
  ASSERT_TRUE(wait_until(reads));
  const program_state before = *place.state();
  EXPECT_EQ(before.phase, program_phase::starting);
  EXPECT_TRUE(keeps(reads, std::chrono::milliseconds(1500))) << "it has more than its second";
  place.directory().write("go", "");
  const program_state after = place.wait_phase(program_phase::running);
  EXPECT_EQ(after.pid, before.pid);
  EXPECT_EQ(after.says, "");
}
