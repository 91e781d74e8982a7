#include "control/logs/program_lines.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "runner/log/rotated_name.h"
#include "tests/support/scratch_dir.h"

using control::program_line;
using control::program_lines;
using runner::rotated_name;
using kind = runner::rotated_name::kind;
using texts = std::vector<std::string>;

namespace {

/// A log whose files a test writes as keelmond-run does.
class written_log final {
 public:
  [[nodiscard]] std::string path() const { return place_.file("x.log"); }
  void append(const std::string& text) {
    now_ += text;
    // In place: whoever has it open goes on reading.
    write_file(path(), now_);
  }
  /// Gives the file its name, and begins a new one with the next text.
  std::string rotate() {
    const std::string name = runner::rotated_path(path(), {++moment_, kind::plain});
    std::filesystem::rename(path(), name);
    now_.clear();
    return name;
  }
  void rotate_and_compress() { run("gzip " + rotate()); }
  static void run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0); }

 private:
  scratch_dir place_;
  std::string now_;
  std::int64_t moment_ = 1'000'000;
};

texts texts_of(const std::vector<program_line>& lines) {
  texts all;
  for (const program_line& line : lines)
    all.push_back(line.text);
  return all;
}

texts last(const written_log& log, std::size_t count) {
  return texts_of(program_lines(log.path(), 0).last(count, false));
}

program_line line(std::size_t log, std::int64_t time) {
  return {log, time, std::to_string(log) + "@" + std::to_string(time)};
}

}  // namespace

TEST(program_lines, shows_the_last_lines) {
  written_log log;
  log.append("one\ntwo\n\nfour\n");
  EXPECT_EQ(last(log, 2), (texts{"", "four"}));
  EXPECT_EQ(last(log, 4), (texts{"one", "two", "", "four"}));
  EXPECT_EQ(last(log, 100), (texts{"one", "two", "", "four"}));
  EXPECT_EQ(last(log, 0), texts{});
}

TEST(program_lines, shows_a_line_without_an_end_when_nothing_more_is_waited_for) {
  written_log log;
  log.append("one\ntwo\nthree");
  EXPECT_EQ(last(log, 2), (texts{"two", "three"}));
  program_lines lines(log.path(), 0);
  EXPECT_EQ(texts_of(lines.last(1, true)), texts{"two"});
  log.append(" and more\n");
  EXPECT_EQ(texts_of(lines.next()), texts{"three and more"});
}

TEST(program_lines, goes_back_to_rotated_and_compressed_files) {
  written_log log;
  log.append("1\n2\n");
  log.rotate_and_compress();
  log.append("3\n4\n");
  log.rotate();
  log.append("5\n");
  EXPECT_EQ(last(log, 1), texts{"5"});
  EXPECT_EQ(last(log, 2), (texts{"4", "5"}));
  EXPECT_EQ(last(log, 4), (texts{"2", "3", "4", "5"}));
  EXPECT_EQ(last(log, 9), (texts{"1", "2", "3", "4", "5"}));
}

TEST(program_lines, counts_a_file_once_that_is_there_in_two_forms) {
  written_log log;
  log.append("1\n");
  const std::string name = log.rotate();
  written_log::run("gzip -k " + name);
  log.append("2\n");
  EXPECT_EQ(last(log, 9), (texts{"1", "2"}));
}

TEST(program_lines, shows_what_is_left_when_there_is_no_file) {
  written_log log;
  EXPECT_EQ(last(log, 9), texts{});
  log.append("1\n");
  log.rotate();
  EXPECT_EQ(last(log, 9), texts{"1"});
}

TEST(program_lines, finds_lines_that_are_far_from_the_end) {
  written_log log;
  std::string text;
  texts all;
  for (int i = 0; i < 500; ++i) {
    all.push_back(std::to_string(i) + std::string(static_cast<std::size_t>(i * 7), 'x'));
    text += all.back() + "\n";
  }
  log.append(text);
  for (const std::size_t count : {1U, 100U, 333U, 499U, 500U, 501U}) {
    const std::size_t first = all.size() - std::min<std::size_t>(count, all.size());
    EXPECT_EQ(last(log, count), texts(all.begin() + static_cast<std::ptrdiff_t>(first), all.end()));
  }
}

TEST(program_lines, follows_what_is_written) {
  written_log log;
  log.append("old\n");
  program_lines lines(log.path(), 0);
  EXPECT_EQ(texts_of(lines.next()), texts{});
  log.append("one\ntw");
  EXPECT_EQ(texts_of(lines.next()), texts{"one"});
  log.append("o\n");
  EXPECT_EQ(texts_of(lines.next()), texts{"two"});
}

TEST(program_lines, follows_a_file_that_comes_later) {
  written_log log;
  program_lines lines(log.path(), 0);
  EXPECT_EQ(texts_of(lines.last(9, true)), texts{});
  log.append("one\n");
  EXPECT_EQ(texts_of(lines.next()), texts{"one"});
}

TEST(program_lines, follows_across_rotations_however_many_there_were) {
  written_log log;
  log.append("old\n");
  program_lines lines(log.path(), 0);
  log.append("1\n");
  log.rotate();
  log.append("2\n");
  log.rotate_and_compress();
  log.append("3\n");
  log.rotate();
  log.append("4\n");
  EXPECT_EQ(texts_of(lines.next()), (texts{"1", "2", "3", "4"}));
  log.append("5\n");
  EXPECT_EQ(texts_of(lines.next()), texts{"5"});
}

TEST(program_lines, follows_a_file_that_was_compressed_or_removed_meanwhile) {
  written_log log;
  log.append("old\n");
  program_lines lines(log.path(), 0);
  log.append("1\n");
  log.rotate_and_compress();
  log.append("2\n");
  EXPECT_EQ(texts_of(lines.next()), (texts{"1", "2"}));
  log.append("3\n");
  std::filesystem::remove(log.rotate());
  log.append("4\n");
  log.rotate();
  log.append("5\n");
  EXPECT_EQ(texts_of(lines.next()), (texts{"3", "4", "5"}));
}

TEST(program_lines, follows_a_rename_by_others_and_a_file_that_is_emptied) {
  written_log log;
  log.append("one\n");
  program_lines lines(log.path(), 0);
  log.append("two\n");
  std::filesystem::rename(log.path(), log.path() + ".1");
  write_file(log.path(), "three\n");
  EXPECT_EQ(texts_of(lines.next()), (texts{"two", "three"}));
  write_file(log.path(), "4\n");
  EXPECT_EQ(texts_of(lines.next()), texts{"4"});
}

TEST(program_lines, repeats_and_omits_nothing_between_the_past_and_what_follows) {
  std::mt19937 dice(1);
  for (int round = 0; round < 50; ++round) {
    written_log log;
    texts all;
    const auto write_some = [&] {
      for (auto count = dice() % 4; count > 0; --count) {
        all.push_back(std::to_string(all.size()));
        log.append(all.back() + "\n");
      }
      if (std::filesystem::exists(log.path()) && dice() % 3 == 0) log.rotate();
    };
    for (int i = 0; i < 5; ++i)
      write_some();
    program_lines lines(log.path(), 0);
    write_some();
    texts seen = texts_of(lines.last(1000, true));
    for (int i = 0; i < 5; ++i) {
      write_some();
      for (std::string& text : texts_of(lines.next()))
        seen.push_back(std::move(text));
    }
    all.emplace_back("last");
    log.append("last\n");
    for (std::string& text : texts_of(lines.next()))
      seen.push_back(std::move(text));
    ASSERT_EQ(seen, all) << "round " << round;
  }
}

TEST(program_lines, have_the_time_in_front_of_them) {
  written_log log;
  log.append(
      "1970-01-01T00:00:05.000001+00:00 one\n  a part of it\n"
      "1970-01-01T01:00:06.000000+01:00 two\n");
  const auto lines = program_lines(log.path(), 7).last(9, false);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0].time, 5'000'001);
  EXPECT_EQ(lines[1].time, 5'000'001);
  EXPECT_EQ(lines[2].time, 6'000'000);
  EXPECT_EQ(lines[2].log, 7U);
  EXPECT_EQ(lines[2].text, "1970-01-01T01:00:06.000000+01:00 two");
}

TEST(program_lines, are_as_old_as_the_end_of_their_file_when_nothing_tells_their_time) {
  written_log log;
  log.append("one\n");
  log.rotate();
  log.append("two\n");
  const auto lines = program_lines(log.path(), 0).last(9, false);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].time, 1'000'001);
  EXPECT_GT(lines[1].time, std::int64_t{1'700'000'000} * 1'000'000);
}

TEST(merge, orders_logs_by_time_and_leaves_each_in_its_own_order) {
  const auto merged = control::merge(
      {{line(0, 1), line(0, 5), line(0, 3)}, {line(1, 1), line(1, 2), line(1, 6)}, {}});
  EXPECT_EQ(texts_of(merged), (texts{"0@1", "1@1", "1@2", "0@5", "0@3", "1@6"}));
  EXPECT_TRUE(control::merge({}).empty());
}
