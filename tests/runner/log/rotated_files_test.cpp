#include "runner/log/rotated_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>

#include "tests/runner/log/log_place.h"
#include "tests/runner/log/moved_clock.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"

using runner::own_lines;
using runner::rotated_files;
using runner::rotated_name;
using kind = runner::rotated_name::kind;

namespace {

/// The directory, what was said, and the object under test.
struct rotation {
  explicit rotation(unsigned keep, bool compress = false)
      : files(place.path(), keep, compress, messages) {}

  /// Rotates a file with that text.
  void add(std::string_view text) {
    place.directory().write("x.log", text);
    EXPECT_TRUE(files.add());
    files.tidy();
  }
  /// Awaits every child that compresses.
  void finish() {
    while (files.compressor() > 0) {
      const pid_t child = files.compressor();
      int status = 0;
      ASSERT_EQ(::waitpid(child, &status, 0), child);
      EXPECT_TRUE(files.on_child_end(child, status));
    }
  }

  log_place place;
  own_lines messages;
  rotated_files files;
};

using texts = std::vector<std::string>;

}  // namespace

TEST(rotated_files, keeps_the_newest) {
  rotation log(2);
  for (const char* text : {"1", "2", "3", "4"})
    log.add(text);
  EXPECT_EQ(log.place.rotated_texts(), (texts{"3", "4"}));
}

TEST(rotated_files, keeps_none_when_none_are_wanted) {
  rotation log(0);
  log.add("1");
  EXPECT_TRUE(log.place.rotated().empty());
  EXPECT_FALSE(log.place.directory().has("x.log"));
}

TEST(rotated_files, counts_those_of_earlier_runs) {
  rotation log(2, true);
  log.place.write_rotated({1, kind::plain}, "1");
  log.place.write_rotated({2, kind::plain}, "2");
  log.place.write_rotated({3, kind::plain}, "3");
  log.files.find();
  log.finish();
  EXPECT_EQ(log.place.rotated_texts(), (texts{"2", "3"}));
  log.add("4");
  log.finish();
  EXPECT_EQ(log.place.rotated_texts(), (texts{"3", "4"}));
}

TEST(rotated_files, keeps_their_order_when_the_clock_is_set_back) {
  moved_clock clock;
  rotation log(10);
  log.add("1");
  clock.advance_wall(std::chrono::hours(-3));
  log.add("2");
  clock.stop_wall(0);
  log.add("3");
  log.add("4");
  EXPECT_EQ(log.place.rotated_texts(), (texts{"1", "2", "3", "4"}));
}

TEST(rotated_files, says_so_when_there_is_nothing_to_rotate) {
  rotation log(2);
  EXPECT_FALSE(log.files.add());
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(log.place.rotated().empty());
}

TEST(rotated_files, compresses_and_keeps_mode_and_time) {
  rotation log(10, true);
  const timespec long_ago[] = {{1000, 0}, {2000, 0}};
  log.place.directory().write("x.log", std::string(100'000, 'x'));
  ::chmod(log.place.path().c_str(), 0600);
  ::utimensat(AT_FDCWD, log.place.path().c_str(), long_ago, 0);
  ASSERT_TRUE(log.files.add());
  log.files.tidy();
  EXPECT_GT(log.files.compressor(), 0);
  log.finish();
  const auto rotated = log.place.rotated();
  ASSERT_EQ(rotated.size(), 1U);
  EXPECT_EQ(rotated[0].what, kind::compressed);
  struct stat status {};
  ASSERT_EQ(::stat(runner::rotated_path(log.place.path(), rotated[0]).c_str(), &status), 0);
  EXPECT_LT(status.st_size, 1000);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  EXPECT_EQ(status.st_mtim.tv_sec, 2000);
  EXPECT_EQ(log.place.rotated_texts(), texts{std::string(100'000, 'x')});
  EXPECT_TRUE(log.messages.empty());
}

TEST(rotated_files, compresses_one_at_a_time_and_all_in_the_end) {
  rotation log(10, true);
  log.add("1");
  const pid_t first = log.files.compressor();
  log.add("2");
  log.add("3");
  EXPECT_EQ(log.files.compressor(), first);
  log.finish();
  for (const rotated_name& name : log.place.rotated())
    EXPECT_EQ(name.what, kind::compressed);
  EXPECT_EQ(log.place.rotated_texts(), (texts{"1", "2", "3"}));
}

TEST(rotated_files, leaves_the_newest_as_it_is_until_it_is_not_written_any_more) {
  rotation log(10, true);
  log.add("1");
  log.place.directory().write("x.log", "2");
  ASSERT_TRUE(log.files.add());
  log.finish();
  const auto rotated = log.place.rotated();
  ASSERT_EQ(rotated.size(), 2U);
  EXPECT_EQ(rotated[0].what, kind::compressed);
  EXPECT_EQ(rotated[1].what, kind::plain);
  log.files.tidy();
  log.finish();
  EXPECT_EQ(log.place.rotated().back().what, kind::compressed);
  EXPECT_EQ(log.place.rotated_texts(), (texts{"1", "2"}));
}

TEST(rotated_files, does_not_bring_back_what_was_removed_while_it_was_compressed) {
  rotation log(1, true);
  log.add("1");
  log.add("2");
  log.finish();
  EXPECT_EQ(log.place.rotated_texts(), texts{"2"});
}

TEST(rotated_files, does_not_take_other_children_for_its_own) {
  rotation log(1, true);
  EXPECT_FALSE(log.files.on_child_end(0, 0));
  log.add("1");
  EXPECT_FALSE(log.files.on_child_end(log.files.compressor() + 1, 0));
  log.finish();
}

TEST(rotated_files, goes_on_after_a_kill_while_it_compressed) {
  rotation log(10, true);
  const std::string half = log.place.write_rotated({1, kind::half_compressed}, "\x1f\x8b");
  log.place.write_rotated({1, kind::plain}, "one");
  log.files.find();
  log.finish();
  ASSERT_EQ(log.place.rotated().size(), 1U);
  EXPECT_EQ(log.place.rotated()[0].what, kind::compressed);
  EXPECT_EQ(log.place.rotated_texts(), texts{"one"});
}

TEST(rotated_files, goes_on_after_a_kill_between_the_rename_and_the_removal) {
  rotation log(10, true);
  log.add("one");
  log.finish();
  rotated_name name = log.place.rotated().at(0);
  name.what = kind::plain;
  log.place.write_rotated(name, "one");
  ASSERT_EQ(log.place.rotated().size(), 2U);
  log.files.find();
  EXPECT_EQ(log.files.compressor(), 0);
  EXPECT_EQ(log.place.rotated_texts(), texts{"one"});
}

TEST(rotated_files, leaves_the_file_as_it_is_when_the_child_is_killed) {
  rotation log(10, true);
  log.add("one");
  log.files.stop_compressor();
  EXPECT_EQ(log.files.compressor(), 0);
  ASSERT_EQ(log.place.rotated().size(), 1U);
  EXPECT_EQ(log.place.rotated()[0].what, kind::plain);
  EXPECT_TRUE(log.messages.empty());
}

TEST(rotated_files, says_once_that_there_is_no_gzip) {
  in_child([] {
    ::setenv("PATH", "/nowhere", 1);
    rotation log(10, true);
    log.add("1");
    log.finish();
    EXPECT_EQ(log.messages.take(),
              "keelmond-run: rotated files are not compressed: there is no gzip\n");
    log.add("2");
    EXPECT_EQ(log.files.compressor(), 0);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(log.place.rotated_texts(), (texts{"1", "2"}));
  });
}

TEST(rotated_files, says_what_gzip_ended_with) {
  in_child([] {
    const scratch_dir programs;
    replace_gzip(programs, "#!/bin/sh\necho part\nexit 3\n");
    rotation log(10, true);
    log.add("1");
    log.finish();
    const std::string said = log.messages.take();
    EXPECT_TRUE(said.starts_with("keelmond-run: cannot compress " + log.place.path() + "."))
        << said;
    EXPECT_TRUE(said.ends_with(": gzip ends with 3\n")) << said;
    EXPECT_EQ(log.place.rotated_texts(), texts{"1"});
  });
}

TEST(rotated_files, does_without_a_child_that_cannot_be_forked) {
  const no_faults_afterwards restore;
  rotation log(10, true);
  faults.fork = [] {
    errno = EAGAIN;
    return -1;
  };
  log.add("1");
  EXPECT_EQ(log.files.compressor(), 0);
  const std::string said = log.messages.take();
  EXPECT_TRUE(said.ends_with(": Resource temporarily unavailable\n")) << said;
  EXPECT_EQ(log.place.rotated_texts(), texts{"1"});
}

TEST(rotated_files, gives_the_child_plain_signals_and_the_lowest_priority) {
  in_child([] {
    const scratch_dir programs;
    // No shell: it would change the signals itself.
    replace_gzip(programs,
                 "#!/usr/bin/perl\n"
                 "open(my $status, '<', '/proc/self/status');\n"
                 "for (<$status>) {\n"
                 "  print if /^SigBlk/;\n"
                 "  print hex($1) & 0x1000, ' ' if /^SigIgn:\\s*([0-9a-f]+)/;\n"
                 "}\n"
                 "print getpriority(0, 0), ' ', <STDIN>;\n");
    sigset_t all;
    ::sigfillset(&all);
    ::sigprocmask(SIG_BLOCK, &all, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    rotation log(10, true);
    log.add("text");
    log.finish();
    const auto rotated = log.place.rotated();
    ASSERT_EQ(rotated.size(), 1U);
    EXPECT_EQ(read_file(runner::rotated_path(log.place.path(), rotated[0])),
              "SigBlk:\t0000000000000000\n0 19 text");
  });
}
