#include "common/log/log_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/golden.h"
#include "tests/support/in_child.h"
#include "tests/support/log_text.h"
#include "tests/support/scratch_dir.h"

namespace {

constexpr char kFinished[] = "finish for close log file. \n";

std::string time_text(std::time_t moment) {
  std::tm local{};
  ::localtime_r(&moment, &local);
  std::array<char, 64> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
  return {text.data(), length};
}

/// Whether a text is the local time of a moment between `from` and now.
bool is_time_since(std::time_t from, const std::string& text) {
  for (std::time_t moment = from; moment <= std::time(nullptr); ++moment) {
    if (time_text(moment) == text) return true;
  }
  return false;
}

class log_file : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(log_->create_log_file(path_.c_str(), false)); }

  [[nodiscard]] std::string content() const { return read_file(path_); }
  /// The content behind `start`, which the log must begin with.
  [[nodiscard]] std::string behind(const std::string& start) const {
    const std::string all = content();
    EXPECT_EQ(all.substr(0, start.size()), start);
    return all.substr(std::min(start.size(), all.size()));
  }

  scratch_dir scratch_;
  std::string path_ = scratch_.file("a.log");
  std::optional<Tlog_file> log_{std::in_place};
};

TEST(log_file_global, is_null_until_main_creates_it) {
  EXPECT_EQ(g_logFile, nullptr);
}

TEST(log_file_open, a_null_path_returns_false_and_changes_nothing) {
  const scratch_dir scratch;
  scratch.write("old", "kept");
  Tlog_file log;
  EXPECT_FALSE(log.create_log_file(nullptr, true));
  EXPECT_FALSE(log.create_log_file(nullptr, false));
  EXPECT_EQ(scratch.read("old"), "kept");
  ASSERT_TRUE(log.create_log_file(scratch.file("old").c_str(), false));
  EXPECT_FALSE(log.create_log_file(nullptr, true));
  log.append_log("+", -1);
  EXPECT_EQ(scratch.read("old"), "kept+");
}

TEST(log_file_open, keeps_what_is_there_and_appends_to_it) {
  const scratch_dir scratch;
  scratch.write("old", "before\r\n");
  Tlog_file log;
  ASSERT_TRUE(log.create_log_file(scratch.file("old").c_str(), false));
  EXPECT_EQ(scratch.read("old"), "before\r\n");
  log.append_log("after\r\n", -1);
  EXPECT_EQ(scratch.read("old"), "before\r\nafter\r\n");
}

TEST(log_file_open, removes_what_is_there_when_asked_to) {
  const scratch_dir scratch;
  scratch.write("old", "before\r\n");
  std::filesystem::create_hard_link(scratch.file("old"), scratch.file("link"));
  Tlog_file log;
  ASSERT_TRUE(log.create_log_file(scratch.file("old").c_str(), true));
  log.append_log("after\r\n", -1);
  EXPECT_EQ(scratch.read("old"), "after\r\n");
  EXPECT_EQ(scratch.read("link"), "before\r\n") << "the file is removed, not emptied";
}

TEST(log_file_open, does_not_mind_that_there_is_nothing_to_remove) {
  const scratch_dir scratch;
  Tlog_file log;
  EXPECT_TRUE(log.create_log_file(scratch.file("new").c_str(), true));
  EXPECT_TRUE(scratch.has("new"));
}

TEST(log_file_open, fails_in_a_missing_directory_and_every_write_is_then_skipped) {
  const scratch_dir scratch;
  {
    Tlog_file log;
    EXPECT_FALSE(log.create_log_file(scratch.file("no/where.log").c_str(), false));
    log.append_log("text", -1);
    log.append_time();
    log.add_log_string("x", 1);
    log.add_log_string2("x", 1, "y", 2);
    log.add_pure_string("a", "b");
    log.close_file();
  }
  EXPECT_TRUE(std::filesystem::is_empty(scratch.path()));
}

TEST(log_file_open, a_file_already_held_is_not_closed) {
  const scratch_dir scratch;
  Tlog_file log;
  ASSERT_TRUE(log.create_log_file(scratch.file("first").c_str(), false));
  ASSERT_TRUE(log.create_log_file(scratch.file("second").c_str(), false));
  log.append_log("text", -1);
  log.close_file();
  EXPECT_EQ(scratch.read("first"), "") << "no closing line";
  EXPECT_EQ(scratch.read("second"), std::string("text") + golden::kClosed);
}

TEST(log_file_open, a_failure_leaves_the_log_closed_whatever_was_held) {
  const scratch_dir scratch;
  Tlog_file log;
  ASSERT_TRUE(log.create_log_file(scratch.file("first").c_str(), false));
  EXPECT_FALSE(log.create_log_file(scratch.file("no/where.log").c_str(), false));
  log.append_log("text", -1);
  log.close_file();
  EXPECT_EQ(scratch.read("first"), "");
}

TEST(log_file_open, the_log_may_be_read_and_appended_to_and_is_not_passed_on_to_programs) {
  const scratch_dir scratch;
  const int before = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::close(before);
  Tlog_file log;
  ASSERT_TRUE(log.create_log_file(scratch.file("a.log").c_str(), false));
  EXPECT_EQ(::fcntl(before, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(::fcntl(before, F_GETFL) & (O_ACCMODE | O_APPEND), O_RDWR | O_APPEND);
}

TEST_F(log_file, minus_one_measures_the_text) {
  log_->append_log("launched sub process PID: 7 \r\n", -1);
  EXPECT_EQ(content(), "launched sub process PID: 7 \r\n");
}

TEST_F(log_file, a_length_writes_exactly_that_many_bytes) {
  log_->append_log("abcdef", 3);
  EXPECT_EQ(content(), "abc");
  log_->append_log("a\0b", 3);
  EXPECT_EQ(content(), std::string("abca\0b", 6)) << "a NUL byte does not end a measured text";
}

TEST_F(log_file, nothing_is_written_for_an_empty_text_or_any_other_length_below_one) {
  log_->append_log("", -1);
  log_->append_log("abc", 0);
  log_->append_log("abc", -2);
  log_->append_log("abc", -5);
  log_->append_log("abc", INT_MIN);
  log_->append_log(nullptr, -1);
  log_->append_log(nullptr, 3);
  EXPECT_EQ(content(), "");
}

TEST_F(log_file, every_write_is_in_the_file_at_once) {
  log_->append_log("one", -1);
  EXPECT_EQ(content(), "one");
  log_->append_time();
  EXPECT_EQ(content().size(), 3U + 21U);
}

TEST_F(log_file, writes_land_behind_what_another_process_has_written_meanwhile) {
  log_->append_log("mine ", -1);
  write_file(path_, "a longer text of somebody else ");
  log_->append_log("mine", -1);
  EXPECT_EQ(content(), "a longer text of somebody else mine");
}

TEST_F(log_file, a_time_line_is_the_local_time_and_cr_lf) {
  const std::time_t before = std::time(nullptr);
  log_->append_time();
  const std::string line = content();
  ASSERT_TRUE(is_time_line(line)) << line;
  EXPECT_TRUE(is_time_since(before, line.substr(0, line.size() - 2))) << line;
}

TEST(log_file_time, is_local_and_not_universal_time) {
  in_child([] {
    // Nine and a half hours ahead of Greenwich.
    ::setenv("TZ", "XYZ-9:30", 1);
    Tlog_file::read_time_zone();
    constexpr std::time_t kAhead = 9 * 3600 + 30 * 60;
    const Tlog_file log;
    std::array<char, 20> text{};
    const std::time_t before = std::time(nullptr);
    log.get_date_time(text.data());
    const std::time_t after = std::time(nullptr);
    ::setenv("TZ", "UTC0", 1);
    Tlog_file::read_time_zone();
    const std::string local = text.data();
    EXPECT_TRUE(local == time_text(before + kAhead) || local == time_text(after + kAhead)) << local;
  });
}

TEST_F(log_file, the_time_comes_after_the_message_that_it_dates_on_a_line_of_its_own) {
  log_->append_log("exited process PID: 5  errno: 10\r\n", -1);
  log_->append_time();
  EXPECT_TRUE(is_time_line(behind("exited process PID: 5  errno: 10\r\n")));
}

TEST_F(log_file, a_named_value_is_one_debug_line_and_a_time_line) {
  log_->add_log_string("x", 42);
  EXPECT_TRUE(is_time_line(behind("debug_log: x: 42\n")));
}

TEST_F(log_file, a_negative_value_shows_as_its_twos_complement) {
  log_->add_log_string("x", -1);
  EXPECT_TRUE(is_time_line(behind("debug_log: x: 18446744073709551615\n")));
}

TEST_F(log_file, the_smallest_and_largest_values_are_printed_whole) {
  log_->add_log_string2("low", LLONG_MIN, "high", LLONG_MAX);
  EXPECT_TRUE(is_time_line(
      behind("debug_log: low: 9223372036854775808  debug_log: high: 9223372036854775807\n")));
}

TEST_F(log_file, two_pairs_share_one_line_with_two_blanks_between) {
  log_->add_log_string2("a", 1, "b", -2);
  EXPECT_TRUE(is_time_line(behind("debug_log: a: 1  debug_log: b: 18446744073709551614\n")));
}

TEST_F(log_file, a_null_name_counts_as_empty) {
  log_->add_log_string(nullptr, 3);
  EXPECT_TRUE(is_time_line(behind("debug_log: : 3\n")));
}

TEST_F(log_file, a_percent_in_a_name_is_only_text) {
  log_->add_log_string("%s%n", 3);
  EXPECT_TRUE(is_time_line(behind("debug_log: %s%n: 3\n")));
}

TEST_F(log_file, an_over_long_debug_line_is_cut_at_255_bytes) {
  const std::string name(300, 'n');
  log_->add_log_string(name.c_str(), 3);
  EXPECT_TRUE(is_time_line(behind(("debug_log: " + name).substr(0, 255))));
}

TEST_F(log_file, a_debug_line_of_255_bytes_is_whole) {
  const std::string name(255 - 11 - 2 - 1 - 1, 'n');
  log_->add_log_string(name.c_str(), 3);
  EXPECT_TRUE(is_time_line(behind("debug_log: " + name + ": 3\n")));
}

TEST_F(log_file, both_texts_of_a_pure_string_are_ignored) {
  log_->add_pure_string("a", "b");
  EXPECT_TRUE(is_time_line(content())) << content();
  log_->add_pure_string(nullptr, nullptr);
  EXPECT_EQ(content().size(), 2U * 21U);
}

TEST_F(log_file, the_date_text_is_19_characters_and_a_terminator) {
  std::string out(24, '#');
  const std::time_t before = std::time(nullptr);
  log_->get_date_time(out.data());
  EXPECT_TRUE(is_time_since(before, out.substr(0, 19))) << out;
  EXPECT_EQ(out[19], '\0');
  EXPECT_EQ(out.substr(20), "####");
  EXPECT_EQ(content(), "");
}

TEST_F(log_file, a_null_date_buffer_is_left_alone) {
  log_->get_date_time(nullptr);
  EXPECT_EQ(content(), "");
}

TEST_F(log_file, the_date_text_needs_no_open_log) {
  log_->close_file();
  std::array<char, 20> out{};
  log_->get_date_time(out.data());
  EXPECT_EQ(std::string(out.data()).size(), 19U);
}

TEST_F(log_file, going_away_open_ends_the_log_with_the_unfinished_line) {
  log_->append_log("last\r\n", -1);
  log_.reset();
  EXPECT_EQ(content(), std::string("last\r\n") + golden::kClosed);
}

TEST_F(log_file, closing_ends_the_log_with_the_unfinished_line_once) {
  log_->close_file();
  EXPECT_EQ(content(), golden::kClosed);
  log_->close_file();
  log_.reset();
  EXPECT_EQ(content(), golden::kClosed);
}

TEST_F(log_file, nothing_is_written_to_a_closed_log) {
  log_->close_file();
  log_->append_log("text", -1);
  log_->append_time();
  log_->add_log_string("x", 1);
  EXPECT_EQ(content(), golden::kClosed);
}

TEST_F(log_file, a_closed_log_can_be_opened_again) {
  log_->close_file();
  ASSERT_TRUE(log_->create_log_file(path_.c_str(), false));
  log_->append_log("again", -1);
  EXPECT_EQ(content(), std::string(golden::kClosed) + "again");
}

TEST_F(log_file, the_file_is_closed_with_the_log) {
  const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::close(next);
  log_->close_file();
  const int after = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::close(after);
  EXPECT_LT(after, next);
}

TEST(log_file_closing_line, tells_a_finished_log_from_an_unfinished_one) {
  EXPECT_STREQ(Tlog_file::closing_line(true), kFinished);
  EXPECT_STREQ(Tlog_file::closing_line(false), golden::kClosed);
  EXPECT_EQ(sizeof kFinished - 1, 28U);
  EXPECT_EQ(sizeof golden::kClosed - 1, 43U);
}

TEST_F(log_file, a_full_disk_is_not_reported) {
  // Through a link of this test, so that nothing can happen to the device itself.
  if (!std::filesystem::is_character_file("/dev/full")) GTEST_SKIP() << "there is no full device";
  std::filesystem::create_symlink("/dev/full", scratch_.file("full"));
  Tlog_file full;
  ASSERT_TRUE(full.create_log_file(scratch_.file("full").c_str(), false));
  full.append_log("text", -1);
  full.append_time();
  full.close_file();
}

TEST_F(log_file, texts_of_several_threads_stay_whole) {
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kTexts = 200;
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      const std::string text = std::string(60, static_cast<char>('a' + t)) + "\r\n";
      for (std::size_t i = 0; i < kTexts; ++i) {
        log_->append_log(text.c_str(), -1);
        log_->append_time();
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();

  const std::string all = content();
  ASSERT_EQ(all.size(), kThreads * kTexts * (62 + 21));
  std::size_t messages = 0;
  for (std::size_t at = 0; at < all.size();) {
    const std::size_t end = all.find('\n', at) + 1;
    const std::string line = all.substr(at, end - at);
    if (line.size() == 62 && line == std::string(60, line[0]) + "\r\n") {
      ++messages;
    } else {
      ASSERT_EQ(line.size(), 21U) << line;
    }
    at = end;
  }
  EXPECT_EQ(messages, kThreads * kTexts);
}

TEST_F(log_file, a_text_of_any_length_is_one_write) {
  constexpr std::size_t kTexts = 300;
  constexpr std::size_t kLength = 5000;
  Tlog_file of_another_process;
  ASSERT_TRUE(of_another_process.create_log_file(path_.c_str(), false));
  const auto write_to = [](Tlog_file& log, char letter) {
    const std::string text = std::string(kLength - 1, letter) + "\n";
    for (std::size_t i = 0; i < kTexts; ++i)
      log.append_log(text.c_str(), -1);
  };
  std::thread other([&] { write_to(of_another_process, 'b'); });
  write_to(*log_, 'a');
  other.join();

  const std::string all = content();
  ASSERT_EQ(all.size(), 2 * kTexts * kLength);
  for (std::size_t at = 0; at < all.size(); at += kLength)
    ASSERT_EQ(all.compare(at, kLength, std::string(kLength - 1, all[at]) + "\n"), 0);
}

TEST_F(log_file, a_forked_child_has_nothing_left_to_write_a_second_time) {
  log_->append_log("once\r\n", -1);
  EXPECT_EQ(WEXITSTATUS(run_in_child([] { std::exit(0); }).status), 0);
  EXPECT_EQ(content(), "once\r\n");
}

TEST_F(log_file, a_text_that_is_cut_by_the_limit_for_files_is_taken_back) {
  in_child([] {
    Tlog_file log;
    ASSERT_TRUE(log.create_log_file("a.log", false));
    log.append_log("first\n", -1);
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit low{10, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &low), 0);
    log.append_log("second\n", -1);
    EXPECT_EQ(read_file("a.log"), "first\n");
    log.append_log("3rd\n", -1);
    EXPECT_EQ(read_file("a.log"), "first\n3rd\n");
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    log.append_log("fourth\n", -1);
    EXPECT_EQ(read_file("a.log"), "first\n3rd\nfourth\n");
  });
}

}  // namespace
