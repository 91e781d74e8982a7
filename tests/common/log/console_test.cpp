#include "common/log/console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/misc/unique_fd.h"
#include "tests/common/misc/process_state.h"
#include "tests/support/captured_output.h"
#include "tests/support/channel.h"
#include "tests/support/fault.h"
#include "tests/support/scratch_dir.h"

namespace {

/// Runs `body` in a child whose descriptor `fd`, standard output or standard error, is `output`; -1
/// closes it.
///
/// The child ends by a signal when a line makes it wait.
/// @return whether the child ended by itself and `body` gave true.
bool holds_in_child(int output, const std::function<bool()>& body, int fd = STDOUT_FILENO) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(30);
    // As in the supervisor, which no write may end.
    std::signal(SIGPIPE, SIG_IGN);
    if (output >= 0) {
      ::dup2(output, fd);
    } else {
      ::close(fd);
    }
    ::_exit(body() ? 0 : 1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// Whether the way to standard output has been prepared is the parameter of these tests.
class console_line : public testing::TestWithParam<bool> {
 protected:
  static void prepare() {
    if (GetParam()) console::open();
  }
  /// Prints in a child. @return whether it came back, with errno as it was.
  static bool prints(int output, const char* text, int error = EBADMSG) {
    return holds_in_child(output, [text, error] {
      prepare();
      errno = error;
      console::print("%s", text);
      return errno == error;
    });
  }
};

INSTANTIATE_TEST_SUITE_P(output, console_line, testing::Bool(), [](const auto& instance) {
  return instance.param ? "after_open" : "before_open";
});

TEST_P(console_line, a_text_is_formatted_and_printed_whole) {
  const channel pipe = make_pipe();
  EXPECT_TRUE(holds_in_child(pipe.writer.get(), [] {
    prepare();
    console::print("%s %d %5.2f%%\n", "text", -7, 1.5);
    console::print_line("line\r");
    console::print_line("");
    console::print("%s", "");
    console::print_as_format("path");
    return true;
  }));
  EXPECT_EQ(read_all(pipe), "text -7  1.50%\nline\r\n\npath");
}

TEST_P(console_line, a_line_is_visible_at_once) {
  const channel pipe = make_pipe();
  EXPECT_TRUE(holds_in_child(pipe.writer.get(), [&pipe] {
    prepare();
    console::print("no newline");
    return read_all(pipe) == "no newline";
  }));
}

TEST_P(console_line, a_full_pipe_loses_the_line_and_takes_the_next_one) {
  const channel pipe = make_pipe();
  const std::size_t filled = fill(pipe);
  EXPECT_TRUE(prints(pipe.writer.get(), "lost\n"));
  EXPECT_EQ(read_all(pipe), std::string(filled, '#'));
  EXPECT_TRUE(prints(pipe.writer.get(), "kept\n"));
  EXPECT_EQ(read_all(pipe), "kept\n");
}

TEST_P(console_line, a_line_that_fits_a_pipe_in_part_is_lost_whole) {
  const channel pipe = make_pipe();
  ASSERT_EQ(::fcntl(pipe.writer.get(), F_SETPIPE_SZ, 4096), 4096);
  const std::string filling(4090, '#');
  ASSERT_EQ(::write(pipe.writer.get(), filling.data(), filling.size()), 4090);
  EXPECT_TRUE(prints(pipe.writer.get(), "longer than six bytes\n"));
  EXPECT_EQ(read_all(pipe), filling);
}

TEST_P(console_line, an_interruption_from_before_does_not_make_a_lost_line_wait) {
  const channel pipe = make_pipe();
  ASSERT_GT(fill(pipe), 0U);
  EXPECT_TRUE(prints(pipe.writer.get(), "lost\n", EINTR));
  EXPECT_TRUE(prints(-1, "lost\n", EINTR));
}

TEST_P(console_line, a_pipe_that_nobody_reads_loses_the_line) {
  channel pipe = make_pipe();
  pipe.reader.reset();
  EXPECT_TRUE(prints(pipe.writer.get(), "lost\n"));
}

TEST_P(console_line, a_closed_output_loses_the_line) {
  EXPECT_TRUE(prints(-1, "lost\n"));
}

TEST_P(console_line, a_full_device_loses_the_line) {
  const unique_fd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
  EXPECT_TRUE(prints(full.get(), "lost\n"));
}

TEST_P(console_line, a_full_socket_loses_the_line_and_takes_the_next_one) {
  const channel socket = make_socket();
  const std::size_t filled = fill(socket);
  EXPECT_TRUE(prints(socket.writer.get(), "lost\n"));
  EXPECT_EQ(read_all(socket), std::string(filled, '#'));
  EXPECT_TRUE(prints(socket.writer.get(), "kept\n"));
  EXPECT_EQ(read_all(socket), "kept\n");
}

TEST_P(console_line, a_socket_that_nobody_reads_loses_the_line) {
  channel socket = make_socket();
  socket.reader.reset();
  EXPECT_TRUE(prints(socket.writer.get(), "lost\n"));
}

TEST_P(console_line, a_file_is_continued_where_it_is) {
  const scratch_dir scratch;
  scratch.write("out", "");
  const unique_fd file(::open(scratch.file("out").c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(::write(file.get(), "before ", 7), 7);
  EXPECT_TRUE(prints(file.get(), "printed"));
  ASSERT_EQ(::write(file.get(), " after", 6), 6);
  EXPECT_EQ(scratch.read("out"), "before printed after");
}

TEST_P(console_line, a_terminal_shows_the_line) {
  const channel terminal = make_terminal();
  EXPECT_TRUE(prints(terminal.writer.get(), "shown\n"));
  EXPECT_EQ(read_all(terminal), "shown\n");
}

TEST_P(console_line, errno_is_left_as_it_was) {
  const channel pipe = make_pipe();
  EXPECT_TRUE(prints(pipe.writer.get(), "kept\n"));
  EXPECT_TRUE(holds_in_child(-1, [] {
    prepare();
    errno = EBADMSG;
    console::print_line("lost");
    console::print_as_format("lost");
    return errno == EBADMSG;
  }));
}

TEST_P(console_line, a_line_of_the_greatest_length_is_whole_and_a_longer_one_is_cut) {
  constexpr std::size_t kMost = console::kMaxLine;
  for (const std::size_t length : {kMost - 1, kMost, kMost + 1, 3 * kMost}) {
    const channel pipe = make_pipe();
    const std::string text(length, 'x');
    EXPECT_TRUE(prints(pipe.writer.get(), text.c_str()));
    EXPECT_EQ(read_all(pipe).size(), std::min(length, kMost));
    EXPECT_TRUE(holds_in_child(pipe.writer.get(), [&text] {
      prepare();
      console::print_as_format(text.c_str());
      return true;
    }));
    EXPECT_EQ(read_all(pipe).size(), std::min(length, kMost));
  }
}

std::size_t line_length(char letter) {
  return static_cast<std::size_t>(letter - 'a') * 9 + 2;
}

TEST_P(console_line, lines_of_several_threads_never_mix) {
  const channel pipe = make_pipe();
  EXPECT_TRUE(holds_in_child(pipe.writer.get(), [] {
    prepare();
    std::vector<std::thread> threads;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
      threads.emplace_back([letter] {
        const std::string line(line_length(letter), letter);
        for (int i = 0; i < 400; ++i)
          console::print_line(line.c_str());
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    return true;
  }));
  std::istringstream in(read_all(pipe));
  int count = 0;
  for (std::string line; std::getline(in, line); ++count) {
    ASSERT_FALSE(line.empty());
    ASSERT_EQ(line, std::string(line_length(line.front()), line.front()));
  }
  EXPECT_EQ(count, 1600) << "all of them fit into the pipe";
}

std::string printed_as_format(const char* format) {
  const captured_output output;
  console::print_as_format(format);
  return output.text();
}

TEST(console_format, a_doubled_percent_sign_prints_as_one) {
  EXPECT_EQ(printed_as_format("/a/100%%/b"), "/a/100%/b");
  EXPECT_EQ(printed_as_format("%%%%"), "%%");
  EXPECT_EQ(printed_as_format("%%d"), "%d");
}

TEST(console_format, any_other_conversion_prints_as_it_is_written) {
  EXPECT_EQ(printed_as_format("%s%n%d"), "%s%n%d");
  EXPECT_EQ(printed_as_format("50%"), "50%");
  EXPECT_EQ(printed_as_format("%%%"), "%%");
  EXPECT_EQ(printed_as_format(""), "");
}

TEST(console_open, a_reader_of_a_pipe_that_is_late_gets_the_line) {
  const channel pipe = make_pipe();
  fill(pipe);
  EXPECT_TRUE(holds_in_child(pipe.writer.get(), [&pipe] {
    console::open();
    int waits = 0;
    // It reads while the line waits for it, however little time that is.
    faults.poll = [&](pollfd* requests, nfds_t count, int milliseconds) {
      if (milliseconds > 0 && ++waits == 1) read_all(pipe);
      return real::poll(requests, count, milliseconds);
    };
    console::print("kept\n");
    return waits == 1 && read_all(pipe) == "kept\n";
  }));
}

TEST(console_open, a_terminal_that_nobody_reads_does_not_make_a_line_wait) {
  const channel terminal = make_terminal();
  EXPECT_TRUE(holds_in_child(terminal.writer.get(), [] {
    console::open();
    const std::string line(1000, 'x');
    for (int i = 0; i < 200; ++i)
      console::print_line(line.c_str());
    return true;
  }));
}

TEST(console_open, the_output_that_others_share_still_blocks) {
  const channel pipe = make_pipe();
  EXPECT_TRUE(holds_in_child(pipe.writer.get(), [] {
    console::open();
    return (::fcntl(STDOUT_FILENO, F_GETFL) & O_NONBLOCK) == 0;
  }));
}

TEST(console_open, programs_that_are_started_do_not_get_its_descriptor) {
  const channel pipe = make_pipe();
  EXPECT_TRUE(holds_in_child(pipe.writer.get(), [] {
    const std::set<int> before = open_descriptors();
    console::open();
    std::set<int> added = open_descriptors();
    std::erase_if(added, [&before](int fd) { return before.contains(fd); });
    return added.size() == 1 && ::fcntl(*added.begin(), F_GETFD) == FD_CLOEXEC;
  }));
}

TEST(console_open, a_socket_that_nobody_reads_sends_no_signal) {
  channel socket = make_socket();
  socket.reader.reset();
  EXPECT_TRUE(holds_in_child(socket.writer.get(), [] {
    std::signal(SIGPIPE, SIG_DFL);
    console::open();
    console::print_line("lost");
    return true;
  }));
}

/// What a child prints on standard error.
std::string complaint(const std::function<void()>& complain) {
  const channel pipe = make_pipe();
  EXPECT_TRUE(holds_in_child(
      pipe.writer.get(),
      [&complain] {
        errno = ENOENT;
        complain();
        return errno == ENOENT;
      },
      STDERR_FILENO));
  return read_all(pipe);
}

TEST(console_error, a_failure_is_reported_with_its_reason) {
  EXPECT_EQ(complaint([] { console::report_error("read"); }), "read: No such file or directory\n");
  EXPECT_EQ(complaint([] { console::report_failure("load", "no %d reason"); }),
            "load: no %d reason\n");
}

TEST(console_error, a_report_of_the_greatest_length_is_whole_and_a_longer_one_is_cut) {
  const std::string what(console::kMaxLine - 5, 'x');
  EXPECT_EQ(complaint([&what] { console::report_failure(what.c_str(), "yz"); }), what + ": yz\n");
  EXPECT_EQ(complaint([&what] { console::report_failure(what.c_str(), "yyz"); }), what + ": yyz");
}

TEST(console_error, a_full_or_closed_standard_error_loses_the_report) {
  const channel pipe = make_pipe();
  const std::size_t filled = fill(pipe);
  const auto complain = [] {
    errno = EINTR;
    console::report_failure("load", "lost");
    return errno == EINTR;
  };
  EXPECT_TRUE(holds_in_child(pipe.writer.get(), complain, STDERR_FILENO));
  EXPECT_TRUE(holds_in_child(-1, complain, STDERR_FILENO));
  EXPECT_EQ(read_all(pipe), std::string(filled, '#'));
}

}  // namespace
