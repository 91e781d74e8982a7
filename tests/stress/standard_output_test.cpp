#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/e2e/support/installation.h"
#include "tests/stress/support/stress.h"
#include "tests/support/channel.h"
#include "tests/support/wait_until.h"

using stress::rounds;

namespace {

/// Programs that make the supervisor write a lot, and one that it must not lose over that.
struct chatter {
  std::string steady;
  std::vector<listed_program> programs;

  explicit chatter(installation& place) : steady(place.add_steady()) {
    programs.push_back(place.entry(steady));
    for (int i = 0; i < 4; ++i)
      programs.push_back(place.entry(place.add_script("exit 0\n")));
    place.save(programs);
  }
};

/// Restarts by the hundred go on; so do reloads, the restart of the steady program, and the
/// shutdown.
void expect_supervision(installation& place, const chatter& talk) {
  stress::kill_running(place, talk.steady);
  place.wait_running(talk.steady, 2);
  const std::size_t before = stress::launches(place);
  const auto more = static_cast<std::size_t>(rounds(10000, 200));
  EXPECT_TRUE(
      wait_until([&] { return stress::launches(place) >= before + more; }, stress::patience()))
      << stress::launches(place) - before;
  auto stopping = talk.programs;
  stopping[0].state = "stop";
  place.save(stopping);
  place.signal(SIGUSR1);
  EXPECT_TRUE(wait_until([&] { return place.running(talk.steady).empty(); }));
  stress::expect_clean_end(place);
}

}  // namespace

TEST(standard_output, may_be_closed) {
  installation place;
  const chatter talk(place);
  place.start({.before_exec = [] { ::close(STDOUT_FILENO); }});
  expect_supervision(place, talk);
  EXPECT_EQ(count(place.log(), "Waiting"), 0U) << "console lines in the log";
}

TEST(standard_output, may_be_closed_with_all_other_descriptors) {
  installation place;
  const chatter talk(place);
  place.start({.before_exec = [] { ::closefrom(0); }});
  expect_supervision(place, talk);
  EXPECT_EQ(count(place.log(), "Waiting"), 0U) << "console lines in the log";
  EXPECT_EQ(count(place.log(), "sh: "), 0U) << "a program's messages in the log";
}

TEST(standard_output, may_be_a_pipe_that_is_never_read) {
  installation place;
  const chatter talk(place);
  const channel output = make_pipe();
  ::fcntl(output.writer.get(), F_SETPIPE_SZ, 4096);
  place.start({.output = output.writer.get()});
  expect_supervision(place, talk);
  for (const std::string& line : lines_of(read_all(output)))
    EXPECT_FALSE(line.starts_with("Waiting") && line != "Waiting has returned.") << line;
}

TEST(standard_output, may_be_a_pipe_that_is_read_now_and_then) {
  installation place;
  const chatter talk(place);
  const channel output = make_pipe();
  ::fcntl(output.writer.get(), F_SETPIPE_SZ, 4096);
  place.start({.output = output.writer.get()});
  std::string text;
  for (int i = 0; i < rounds(1000, 40); ++i) {
    stress::sleep_ms(20);
    text += read_all(output);
  }
  for (const std::string& line : lines_of(text)) {
    EXPECT_TRUE(line == "Waiting has returned." || count(line, "Waiting") == 0)
        << "not whole: " << line;
  }
  EXPECT_GT(count(text, "Waiting has returned."), 0U);
  expect_supervision(place, talk);
}

TEST(standard_output, may_be_a_pipe_whose_reader_goes_away) {
  installation place;
  const chatter talk(place);
  channel output = make_pipe();
  place.start({.output = output.writer.get()});
  place.wait_running(talk.steady);
  output.reader.reset();
  expect_supervision(place, talk);
}

TEST(standard_output, may_be_a_terminal_that_is_never_read) {
  installation place;
  const chatter talk(place);
  const channel output = make_terminal();
  place.start({.output = output.writer.get()});
  expect_supervision(place, talk);
}

TEST(standard_output, may_be_a_terminal_that_hangs_up) {
  installation place;
  const chatter talk(place);
  channel output = make_terminal();
  place.start({.output = output.writer.get()});
  place.wait_running(talk.steady);
  output.writer.reset();
  output.reader.reset();
  expect_supervision(place, talk);
}
