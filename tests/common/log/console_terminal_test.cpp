#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "common/log/console.h"
#include "tests/support/channel.h"
#include "tests/support/fault.h"

namespace {

constexpr int kThreads = 8;
constexpr int kLinesEach = 100;

/// Prints from many threads at once to the terminal `fd`.
[[noreturn]] void print_from_threads(int fd) {
  ::alarm(30);
  ::dup2(fd, STDOUT_FILENO);
  console::open();
  // A turn comes, however late this machine is to read: that is not what makes a line wait here.
  faults.poll = [](pollfd* requests, nfds_t count, int /*milliseconds*/) {
    return real::poll(requests, count, -1);
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([] {
      for (int line = 0; line < kLinesEach; ++line)
        console::print_line("a line of twenty...");
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  ::_exit(0);
}

}  // namespace

TEST(console_terminal, loses_no_line_because_another_writer_is_at_it) {
  channel screen = make_terminal();
  const pid_t child = ::fork();
  if (child == 0) print_from_threads(screen.writer.get());
  screen.writer.reset();
  // Reading waits, and fails when the last writer is gone.
  ::fcntl(screen.reader.get(), F_SETFL, 0);
  const std::string text = read_all(screen);
  EXPECT_EQ(::waitpid(child, nullptr, 0), child);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), kThreads * kLinesEach);
  EXPECT_EQ(text.size(), 20U * kThreads * kLinesEach);
}

TEST(console_terminal, does_not_wait_for_each_line_when_nobody_reads) {
  const channel screen = make_terminal();
  const pid_t child = ::fork();
  if (child == 0) {
    // A wait of a few hundredths of a second each would take minutes.
    ::alarm(30);
    ::dup2(screen.writer.get(), STDOUT_FILENO);
    console::open();
    const std::string line(1000, 'x');
    for (int i = 0; i < 5000; ++i)
      console::print_line(line.c_str());
    ::_exit(0);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}
