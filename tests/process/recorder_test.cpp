#include "process/recorder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/log/log_file.h"
#include "common/misc/unique_fd.h"
#include "tests/process/supervision.h"
#include "tests/support/channel.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/wait_until.h"

namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

constexpr char kLine[] = "a line\r\n<time>\r\n";

/// A log that takes nothing until it is read: a pipe that is full.
class full_log final {
 public:
  full_log() {
    delete g_logFile;
    std::filesystem::remove("keelmond.log");
    if (::mkfifo("keelmond.log", 0600) != 0) throw std::runtime_error("mkfifo");
    reader_.reset(::open("keelmond.log", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    g_logFile = new Tlog_file;
    g_logFile->create_log_file("keelmond.log", false);
    const unique_fd filler(::open("keelmond.log", O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    const std::string block(4096, '#');
    while (::write(filler.get(), block.data(), block.size()) > 0)
      filled_ += block.size();
  }
  /// Reads what was there before, and then what has been written since.
  std::string drain(std::size_t wanted) {
    std::string text;
    wait_until([&] {
      text += read_all(reader_.get());
      return text.size() >= filled_ + wanted;
    });
    return text.substr(std::min(filled_, text.size()));
  }

 private:
  unique_fd reader_;
  std::size_t filled_ = 0;
};

/// As long as the process, like those of monitors.
recorder::record& new_record() {
  return *new recorder::record;
}

TEST(recorder, has_written_the_line_and_its_time_when_it_returns) {
  in_child([] {
    const supervision& world = supervision::begin();
    recorder::append("a line\r\n");
    EXPECT_EQ(world.log(), kLine);
    EXPECT_TRUE(recorder::wait_until_idle(std::chrono::seconds(20)));
  });
}

TEST(recorder, marks_a_program_alive_before_the_line_and_not_alive_after_it) {
  in_child([] {
    const supervision& world = supervision::begin();
    recorder::record& own = new_record();
    recorder::record_launch(own, "prog", "a line\r\n");
    EXPECT_EQ(read_file("notify/prog.dat"), "1");
    EXPECT_EQ(world.log(), kLine);
    recorder::record_end(own, "prog", "a line\r\n");
    EXPECT_FALSE(exists("notify/prog.dat"));
    EXPECT_EQ(world.log(), std::string(kLine) + kLine);

    full_log log;
    recorder::record_launch(own, "prog", "launched\r\n");
    EXPECT_TRUE(exists("notify/prog.dat")) << "the line hangs";
    EXPECT_EQ(log.drain(31).substr(0, 10), "launched\r\n");
    EXPECT_TRUE(recorder::wait_until_idle(std::chrono::seconds(20)));
    full_log another;
    recorder::record_end(own, "prog", "ended\r\n");
    EXPECT_TRUE(exists("notify/prog.dat")) << "the line hangs";
    another.drain(28);
    EXPECT_TRUE(wait_until([] { return !exists("notify/prog.dat"); }));
  });
}

TEST(recorder, writes_the_lines_of_several_threads_each_with_its_time) {
  in_child([] {
    const supervision& world = supervision::begin();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([] {
        recorder::record& own = new_record();
        for (int line = 0; line < 50; ++line)
          recorder::record_launch(own, "prog", "a line\r\n");
      });
    }
    for (std::thread& one : threads)
      one.join();
    EXPECT_TRUE(recorder::wait_until_idle(std::chrono::seconds(20)));
    // Where the recording thread got no processor for a second, the console has the rest.
    EXPECT_EQ(count(world.log(), kLine) + count(world.printed(), "a line\r\n"), 200U);
  });
}

TEST(recorder, lets_who_records_go_on_after_a_second_and_writes_later) {
  in_child([] {
    supervision::begin();
    full_log log;
    const auto start = steady::now();
    recorder::append("a line\r\n");
    EXPECT_GE(steady::now() - start, milliseconds(900));
    EXPECT_FALSE(recorder::wait_until_idle(milliseconds(10)));
    recorder::record_launch(new_record(), "prog", "another\r\n");
    const std::string text = log.drain(59);
    EXPECT_EQ(text.substr(0, 8), "a line\r\n");
    EXPECT_EQ(text.substr(29, 9), "another\r\n");
    EXPECT_TRUE(recorder::wait_until_idle(std::chrono::seconds(20)));
  });
}

TEST(recorder, prints_what_it_cannot_take_and_does_not_wait_again) {
  in_child([] {
    const supervision& world = supervision::begin();
    full_log log;
    recorder::record& own = new_record();
    recorder::record_launch(own, "prog", "launched\r\n");
    const auto start = steady::now();
    recorder::record_end(own, "prog", "ended\r\n");
    EXPECT_LT(steady::now() - start, milliseconds(900));
    EXPECT_EQ(world.printed(), "keelmond: the log hangs, not written: ended\r\n");
    EXPECT_TRUE(exists("notify/prog.dat"));
    log.drain(31);
    EXPECT_TRUE(wait_until([] { return !exists("notify/prog.dat"); }))
        << "the mark is right as soon as the log is";
  });
}

TEST(recorder, writes_by_itself_where_it_has_no_thread) {
  in_child([] {
    std::filesystem::create_directory("notify");
    g_logFile = new Tlog_file;
    ASSERT_TRUE(g_logFile->create_log_file("keelmond.log", false));
    recorder::record_launch(new_record(), "prog", "a line\r\n");
    EXPECT_TRUE(read_file("keelmond.log").starts_with("a line\r\n2"));
    EXPECT_TRUE(exists("notify/prog.dat"));
  });
}

TEST(recorder, without_a_log_only_marks) {
  in_child([] {
    supervision::begin();
    delete std::exchange(g_logFile, nullptr);
    recorder::record_launch(new_record(), "prog", "a line\r\n");
    EXPECT_TRUE(exists("notify/prog.dat"));
  });
}

TEST(recorder, closes_the_log_unless_that_hangs) {
  in_child([] {
    const supervision& world = supervision::begin();
    EXPECT_TRUE(recorder::close_log());
    EXPECT_EQ(g_logFile, nullptr);
    EXPECT_EQ(world.log(), golden::kClosed);
  });
  in_child([] {
    supervision::begin();
    const full_log log;
    EXPECT_FALSE(recorder::close_log());
  });
}

TEST(recorder, cuts_a_line_and_a_name_that_are_too_long) {
  in_child([] {
    const supervision& world = supervision::begin();
    recorder::append(std::string(767, 'x').c_str());
    recorder::append(std::string(768, 'y').c_str());
    EXPECT_EQ(count(world.log(), "x"), 767U);
    EXPECT_EQ(count(world.log(), "y"), 767U);
    recorder::record& own = new_record();
    recorder::record_launch(own, std::string(600, 'n').c_str(), "");
    EXPECT_EQ(std::string(own.program), std::string(511, 'n'));
  });
}

TEST(recorder, reads_the_time_zone_again_when_it_is_told_to) {
  in_child([] {
    supervision::begin();
    const auto hour = [] {
      const std::string before = read_file("keelmond.log");
      recorder::append("a line\r\n");
      return std::stoi(read_file("keelmond.log").substr(before.size() + 8 + 11, 2));
    };
    ::setenv("TZ", "UTC0", 1);
    recorder::follow_time_zone();
    const int here = hour();
    ::setenv("TZ", "XXX-5", 1);
    recorder::follow_time_zone();
    EXPECT_NEAR((hour() - here + 24) % 24, 5, 1);
  });
}

}  // namespace
