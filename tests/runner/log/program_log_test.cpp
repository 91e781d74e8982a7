#include "runner/log/program_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <regex>
#include <string>

#include "runner/log/line_stamp.h"
#include "tests/runner/log/log_place.h"
#include "tests/runner/log/moved_clock.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"

using runner::log_settings;
using runner::log_target;
using runner::program_log;
using runner::steady_now;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

void say(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    ASSERT_GT(count, 0);
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

/// One round of the launcher's loop, which does not wait. @return whether anything was there.
bool turn(program_log& log) {
  std::array<pollfd, program_log::kMostRequests> requests{};
  const std::size_t count = log.poll_requests(requests);
  const int ready = ::poll(requests.data(), count, 0);
  for (std::size_t i = 0; i < count; ++i) {
    if (requests[i].revents != 0) log.on_ready(requests[i].fd);
  }
  if (log.next_deadline() && steady_now() >= *log.next_deadline()) log.on_deadline();
  return ready > 0;
}

void turn_until_quiet(program_log& log) {
  while (turn(log)) {
  }
}

}  // namespace

TEST(program_log, writes_both_outputs_to_one_file_in_their_order) {
  const log_place place;
  program_log log(place.settings(0));
  ASSERT_EQ(log.error(), "");
  EXPECT_EQ(log.stdout_end(), log.stderr_end());
  say(log.stdout_end(), "out\n");
  say(log.stderr_end(), "err\n");
  say(log.stdout_end(), "out again\n");
  turn_until_quiet(log);
  EXPECT_EQ(place.now(), "out\nerr\nout again\n");
}

TEST(program_log, writes_standard_error_to_a_file_of_its_own) {
  const log_place place;
  log_settings settings = place.settings(0);
  settings.stderr_file = place.directory().file("err.log");
  program_log log(settings);
  say(log.stdout_end(), "out\n");
  say(log.stderr_end(), "err\n");
  turn_until_quiet(log);
  EXPECT_EQ(place.now(), "out\n");
  EXPECT_EQ(place.directory().read("err.log"), "err\n");
}

TEST(program_log, says_why_it_cannot_be_used) {
  const log_place place;
  log_settings settings = place.settings(0);
  settings.file = place.directory().file("missing/x.log");
  EXPECT_EQ(program_log(settings).error(),
            "cannot open " + settings.file + ": No such file or directory");
  settings = place.settings(0);
  settings.stderr_file = place.directory().file("missing/y.log");
  EXPECT_EQ(program_log(settings).error(),
            "cannot open " + settings.stderr_file + ": No such file or directory");
}

TEST(program_log, says_that_there_is_no_pipe_or_no_memory) {
  const no_faults_afterwards restore;
  const log_place place;
  faults.pipe2 = without_pipes;
  EXPECT_EQ(program_log(place.settings(0)).error(),
            "cannot make a pipe for the log: Too many open files");
  faults.mmap = [](void*, std::size_t, int, int, int, off_t) {
    errno = ENOMEM;
    return MAP_FAILED;
  };
  const std::string error = program_log(place.settings(0)).error();
  faults = {};
  EXPECT_EQ(error, "cannot allocate memory for the log: Cannot allocate memory");
}

TEST(program_log, says_which_key_an_error_is_about) {
  const log_place place;
  log_settings settings = place.settings(0);
  settings.stderr_file = "/nowhere/x";
  EXPECT_STREQ(program_log(settings).error_key(), "stderr");
  settings.file = "/nowhere/y";
  EXPECT_STREQ(program_log(settings).error_key(), "file");
}

TEST(program_log, reads_nothing_where_the_output_is_inherited) {
  in_child([] {
    const log_place place;
    const int file = ::open(place.path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ::dup2(file, STDERR_FILENO);
    program_log log({});
    EXPECT_EQ(log.stdout_end(), STDOUT_FILENO);
    EXPECT_EQ(log.stderr_end(), STDERR_FILENO);
    std::array<pollfd, program_log::kMostRequests> requests{};
    EXPECT_EQ(log.poll_requests(requests), 0U);
    EXPECT_FALSE(log.next_deadline());
    log.write_own_line("waits");
    log.on_program_end();
    log.drain_and_close();
    EXPECT_EQ(place.now(), "keelmond-run: waits\n");
  });
}

TEST(program_log, waits_for_nobody_who_does_not_read_what_is_inherited) {
  in_child([] {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    ::fcntl(ends[1], F_SETPIPE_SZ, 4096);
    const std::string full(static_cast<std::size_t>(::fcntl(ends[1], F_GETPIPE_SZ)), '.');
    ASSERT_EQ(::write(ends[1], full.data(), full.size()), static_cast<ssize_t>(full.size()));
    // Whoever shares it waits there.
    ::fcntl(ends[1], F_SETFL, 0);
    ::dup2(ends[1], STDERR_FILENO);
    // There was room when it was asked for, and the program has been faster.
    faults.poll = [](pollfd* requests, nfds_t count, int) {
      for (nfds_t i = 0; i < count; ++i)
        requests[i].revents = requests[i].events;
      return static_cast<int>(count);
    };
    program_log log({});
    log.write_own_line("lost");
    std::string text(2 * full.size(), ' ');
    EXPECT_EQ(::read(ends[0], text.data(), text.size()), static_cast<ssize_t>(full.size()));
    log.write_own_line("heard");
    const ssize_t got = ::read(ends[0], text.data(), text.size());
    EXPECT_EQ(text.substr(0, static_cast<std::size_t>(std::max(got, ssize_t{0}))),
              "keelmond-run: heard\n");
    // The way of the others waits as before.
    EXPECT_EQ(::fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0);
  });
}

TEST(program_log, puts_the_time_in_front_of_each_line) {
  const log_place place;
  log_settings settings = place.settings(0);
  settings.stamp = true;
  program_log log(settings);
  say(log.stdout_end(), "one\ntw");
  turn_until_quiet(log);
  say(log.stdout_end(), "o\n");
  turn_until_quiet(log);
  log.write_own_line("three");
  const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}[+-]\d\d:\d\d )";
  EXPECT_TRUE(std::regex_match(
      place.now(), std::regex(stamp + "one\n" + stamp + "two\n" + stamp + "keelmond-run: three\n")))
      << place.now();
}

TEST(program_log, keeps_the_time_in_front_of_lines_that_are_many) {
  const log_place place;
  log_settings settings = place.settings(300'000);
  settings.stamp = true;
  program_log log(settings);
  for (int i = 0; i < 4; ++i) {
    say(log.stdout_end(), std::string(60'000, '\n'));
    turn_until_quiet(log);
  }
  EXPECT_EQ(place.everything().size(), 240'000 * (runner::line_stamp::kSize + 1));
  for (const std::string& text : place.rotated_texts())
    EXPECT_LE(text.size(), 300'000U);
}

TEST(program_log, puts_its_own_lines_between_those_of_the_program) {
  const moved_clock clock;
  const log_place place;
  program_log log(place.settings(0));
  say(log.stdout_end(), "one\ntw");
  log.write_own_line("unhealthy");
  EXPECT_EQ(place.now(), "one\ntw");
  say(log.stdout_end(), "o\nthree\n");
  turn_until_quiet(log);
  EXPECT_EQ(place.now(), "one\ntwo\nthree\nkeelmond-run: unhealthy\n");
}

TEST(program_log, waits_no_longer_than_a_second_for_the_end_of_a_line) {
  moved_clock clock;
  const log_place place;
  program_log log(place.settings(0));
  say(log.stdout_end(), "prompt> ");
  log.write_own_line("unhealthy");
  ASSERT_TRUE(log.next_deadline());
  EXPECT_LE(*log.next_deadline(), steady_now() + seconds(1));
  log.on_deadline();
  EXPECT_EQ(place.now(), "prompt> ");
  clock.advance(milliseconds(1500));
  log.on_deadline();
  EXPECT_EQ(place.now(), "prompt> \nkeelmond-run: unhealthy\n");
  EXPECT_FALSE(log.next_deadline());
}

TEST(program_log, ends_the_last_line_of_a_program) {
  const log_place place;
  program_log log(place.settings(0));
  say(log.stdout_end(), "last words");
  log.on_program_end();
  log.write_own_line("exit 1");
  say(log.stdout_end(), "next start\n");
  turn_until_quiet(log);
  EXPECT_EQ(place.now(), "last words\nkeelmond-run: exit 1\nnext start\n");
}

TEST(program_log, writes_what_is_left_before_it_closes) {
  const log_place place;
  program_log log(place.settings(50'000));
  const std::string line(99, 'x');
  std::string text;
  for (int i = 0; i < 600; ++i)
    text += line + '\n';
  say(log.stdout_end(), text + "and a bit");
  log.drain_and_close();
  EXPECT_EQ(place.everything(), text + "and a bit\n");
}

TEST(program_log, does_not_wait_for_writers_that_are_left_when_it_closes) {
  const log_place place;
  program_log log(place.settings(0));
  const int left = ::dup(log.stdout_end());
  say(left, "text\n");
  log.drain_and_close();
  EXPECT_EQ(place.now(), "text\n");
  EXPECT_LT(::write(left, "x", 1), 0);
  ::close(left);
}

TEST(program_log, never_holds_up_its_program_when_the_disk_is_full) {
  const no_faults_afterwards restore;
  const log_place place;
  program_log log(place.settings(0));
  const int end = log.stdout_end();
  faults.write = [end](int fd, const void* text, std::size_t size) -> ssize_t {
    if (fd == end) return real::write(fd, text, size);
    errno = ENOSPC;
    return -1;
  };
  for (int i = 0; i < 100; ++i) {
    say(end, std::string(9'999, 'x') + "\n");
    turn_until_quiet(log);
  }
  faults.write = nullptr;
  say(end, "room\n");
  turn_until_quiet(log);
  EXPECT_EQ(place.now(), "keelmond-run: 100 lines lost: No space left on device\nroom\n");
}

TEST(program_log, says_in_the_log_what_goes_wrong_with_it) {
  const log_place place;
  log_settings settings = place.settings(4);
  settings.file = place.directory().file(std::string(250, 'x'));
  program_log log(settings);
  say(log.stdout_end(), "aaa\nbbb\n");
  turn_until_quiet(log);
  EXPECT_EQ(read_file(settings.file),
            "aaa\nbbb\nkeelmond-run: cannot rotate " + settings.file + ": File name too long\n");
}

TEST(program_log, compresses_while_it_goes_on) {
  const log_place place;
  log_settings settings = place.settings(1000);
  settings.compress = true;
  program_log log(settings);
  const std::string text = std::string(899, 'x') + "\n";
  for (int i = 0; i < 3; ++i) {
    say(log.stdout_end(), text);
    turn_until_quiet(log);
  }
  EXPECT_FALSE(log.is_compressor(0));
  EXPECT_FALSE(log.is_compressor(::getpid()));
  int ended = 0;
  for (int status = 0; ended < 2; ++ended) {
    const pid_t child = ::wait(&status);
    ASSERT_GT(child, 0);
    EXPECT_TRUE(log.is_compressor(child));
    EXPECT_TRUE(log.on_child_end(child, status));
    EXPECT_FALSE(log.is_compressor(child));
  }
  for (const auto& name : place.rotated())
    EXPECT_EQ(name.what, runner::rotated_name::kind::compressed);
  EXPECT_EQ(place.everything(), text + text + text);
}

TEST(program_log, leaves_nothing_half_compressed_when_it_closes) {
  in_child([] {
    const scratch_dir programs;
    replace_gzip(programs, "#!/bin/sh\necho half\nexec /bin/sleep 1000\n");
    const log_place place;
    log_settings settings = place.settings(4);
    settings.compress = true;
    program_log log(settings);
    say(log.stdout_end(), "aaa\nbbb\n");
    turn_until_quiet(log);
    log.drain_and_close();
    EXPECT_EQ(::wait(nullptr), -1);
    ASSERT_EQ(place.rotated().size(), 1U);
    EXPECT_EQ(place.everything(), "aaa\nbbb\n");
  });
}

TEST(program_log, needs_no_wake_up_and_little_memory_once_it_is_quiet) {
  moved_clock clock;
  const log_place place;
  log_settings settings = place.settings(0);
  settings.stamp = true;
  program_log log(settings);
  EXPECT_FALSE(log.next_deadline());
  say(log.stdout_end(), std::string(60'000, 'x') + "\n");
  turn_until_quiet(log);
  EXPECT_TRUE(log.next_deadline());
  clock.advance(milliseconds(1500));
  log.on_deadline();
  EXPECT_FALSE(log.next_deadline());
  say(log.stdout_end(), "short\n");
  turn_until_quiet(log);
  EXPECT_FALSE(log.next_deadline());
}

TEST(program_log, gives_its_descriptors_to_nobody) {
  const log_place place;
  log_settings settings = place.settings(0);
  settings.stderr_file = place.directory().file("err.log");
  const program_log log(settings);
  int found = 0;
  for (int fd = 3; fd < 100; ++fd) {
    const int flags = ::fcntl(fd, F_GETFD);
    std::array<char, 256> link{};
    const std::string name = "/proc/self/fd/" + std::to_string(fd);
    if (flags < 0 || ::readlink(name.c_str(), link.data(), link.size() - 1) < 0) continue;
    const std::string target = link.data();
    const bool is_ours = target == place.path() || target == settings.stderr_file ||
                         fd == log.stdout_end() || fd == log.stderr_end();
    found += is_ours ? 1 : 0;
    if (is_ours) {
      EXPECT_NE(flags & FD_CLOEXEC, 0) << target;
    }
  }
  EXPECT_EQ(found, 4);
}
