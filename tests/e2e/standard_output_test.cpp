#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "common/misc/unique_fd.h"
#include "tests/e2e/golden.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/channel.h"
#include "tests/support/wait_until.h"

namespace {

/// A file that is not opened for appending: who opened it again would write from its beginning.
channel make_file(const installation& place) {
  const std::string path = (place.site() / "output").string();
  unique_fd writer(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  return {unique_fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), std::move(writer)};
}

/// Starts a program, ends it once, shuts the supervisor down, and compares all that was written.
void expect_each_line_once(installation& place, const channel& output) {
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  place.start({.output = output.writer.get()});
  ::kill(place.wait_running(name), SIGKILL);
  place.wait_running(name, 2);
  ASSERT_TRUE(wait_until([&] { return count(place.log(), "launched sub process") == 2; }));
  ASSERT_EQ(place.shut_down_by(SIGUSR2), 0);
  ASSERT_TRUE(wait_until([&] { return place.processes().empty(); }));

  const std::string lines =
      golden::console_start(place) + golden::kLoad + golden::started(name) + golden::kWaitReturned;
  const std::string waited = golden::kWaitReturned;
  const std::string stop = golden::stop_result(name);
  std::string text;
  wait_until([&] { return (text += read_all(output)).size() >= (lines + stop + waited).size(); });
  EXPECT_TRUE(text == lines + stop + waited || text == lines + waited + stop) << text;
}

/// Starts, supervises, reloads and ends with nothing of it to be seen on standard output.
void expect_life_in_silence(installation& place, const start_options& options) {
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  place.start(options);
  ::kill(place.wait_running(name), SIGKILL);
  place.wait_running(name, 2);
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched + golden::kExited +
                        golden::kLaunched);
  place.save({place.entry(name, "stop")});
  ASSERT_TRUE(wait_until([&] { return place.running(name).empty(); }));
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_FALSE(place.has("run.pid"));
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched + golden::kExited +
                        golden::kLaunched + golden::kExited + golden::kClosed);
}

}  // namespace

TEST(standard_output, has_each_line_once_when_it_is_a_file) {
  installation place;
  expect_each_line_once(place, make_file(place));
}

TEST(standard_output, has_each_line_once_when_it_is_a_pipe) {
  installation place;
  expect_each_line_once(place, make_pipe());
}

TEST(standard_output, has_each_line_once_when_it_is_a_terminal) {
  installation place;
  expect_each_line_once(place, make_terminal());
}

TEST(standard_output, may_be_closed) {
  installation place;
  expect_life_in_silence(place, {.before_exec = [] { ::close(STDOUT_FILENO); }});
}

TEST(standard_output, may_be_closed_together_with_input_and_errors) {
  installation place;
  expect_life_in_silence(place, {.before_exec = [] { ::closefrom(0); }});
}

TEST(standard_output, may_be_a_full_pipe_that_nobody_reads) {
  installation place;
  const channel output = make_pipe();
  const std::size_t filled = fill(output);
  expect_life_in_silence(place, {.output = output.writer.get()});
  // The programs write to the same pipe and rely on it to make them wait.
  EXPECT_EQ(::fcntl(output.writer.get(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(read_all(output), std::string(filled, '#'));
}

TEST(standard_output, may_be_a_pipe_whose_reader_is_gone) {
  installation place;
  channel output = make_pipe();
  output.reader.reset();
  expect_life_in_silence(place, {.output = output.writer.get()});
}
