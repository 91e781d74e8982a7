#include "common/log/console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
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

/// Two connected descriptors: what is written to one can be read from the other.
class connection {
 public:
  [[nodiscard]] int writer() const { return writer_.get(); }
  [[nodiscard]] int reader() const { return reader_.get(); }
  void close_reader() { reader_.reset(); }

  /// Writes until nothing more goes in. @return how much was written.
  [[nodiscard]] std::size_t fill() const {
    const int flags = ::fcntl(writer(), F_GETFL);
    ::fcntl(writer(), F_SETFL, flags | O_NONBLOCK);
    std::size_t filled = 0;
    while (::write(writer(), "#", 1) == 1)
      ++filled;
    ::fcntl(writer(), F_SETFL, flags);
    return filled;
  }

  /// Reads what is there to be read.
  [[nodiscard]] std::string text() const {
    std::string all;
    pollfd request{reader(), POLLIN, 0};
    char part[4096];
    while (::poll(&request, 1, 0) == 1) {
      const ssize_t got = ::read(reader(), part, sizeof part);
      if (got <= 0) break;
      all.append(part, static_cast<std::size_t>(got));
    }
    return all;
  }

 protected:
  connection(int reader, int writer) : reader_(reader), writer_(writer) {}
  explicit connection(const std::array<int, 2>& ends) : connection(ends[0], ends[1]) {}

 private:
  unique_fd reader_;
  unique_fd writer_;
};

class pipe_connection final : public connection {
 public:
  pipe_connection() : connection(make()) {}

 private:
  static std::array<int, 2> make() {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    return ends;
  }
};

class socket_connection final : public connection {
 public:
  socket_connection() : connection(make()) {}

 private:
  static std::array<int, 2> make() {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    return ends;
  }
};

class terminal_connection final : public connection {
 public:
  terminal_connection() : terminal_connection(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {}

 private:
  explicit terminal_connection(int master) : connection(master, open_slave(master)) {}

  static int open_slave(int master) {
    EXPECT_EQ(::grantpt(master), 0);
    EXPECT_EQ(::unlockpt(master), 0);
    char name[64];
    EXPECT_EQ(::ptsname_r(master, name, sizeof name), 0);
    return ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  }
};

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
  const pipe_connection pipe;
  EXPECT_TRUE(holds_in_child(pipe.writer(), [] {
    prepare();
    console::print("%s %d %5.2f%%\n", "text", -7, 1.5);
    console::print_line("line\r");
    console::print_line("");
    console::print("%s", "");
    console::print_as_format("path");
    return true;
  }));
  EXPECT_EQ(pipe.text(), "text -7  1.50%\nline\r\n\npath");
}

TEST_P(console_line, a_line_is_visible_at_once) {
  const pipe_connection pipe;
  EXPECT_TRUE(holds_in_child(pipe.writer(), [&pipe] {
    prepare();
    console::print("no newline");
    return pipe.text() == "no newline";
  }));
}

TEST_P(console_line, a_full_pipe_loses_the_line_and_takes_the_next_one) {
  const pipe_connection pipe;
  const std::size_t filled = pipe.fill();
  EXPECT_TRUE(prints(pipe.writer(), "lost\n"));
  EXPECT_EQ(pipe.text(), std::string(filled, '#'));
  EXPECT_TRUE(prints(pipe.writer(), "kept\n"));
  EXPECT_EQ(pipe.text(), "kept\n");
}

TEST_P(console_line, a_line_that_fits_a_pipe_in_part_is_lost_whole) {
  const pipe_connection pipe;
  ASSERT_EQ(::fcntl(pipe.writer(), F_SETPIPE_SZ, 4096), 4096);
  const std::string filling(4090, '#');
  ASSERT_EQ(::write(pipe.writer(), filling.data(), filling.size()), 4090);
  EXPECT_TRUE(prints(pipe.writer(), "longer than six bytes\n"));
  EXPECT_EQ(pipe.text(), filling);
}

TEST_P(console_line, an_interruption_from_before_does_not_make_a_lost_line_wait) {
  const pipe_connection pipe;
  ASSERT_GT(pipe.fill(), 0U);
  EXPECT_TRUE(prints(pipe.writer(), "lost\n", EINTR));
  EXPECT_TRUE(prints(-1, "lost\n", EINTR));
}

TEST_P(console_line, a_pipe_that_nobody_reads_loses_the_line) {
  pipe_connection pipe;
  pipe.close_reader();
  EXPECT_TRUE(prints(pipe.writer(), "lost\n"));
}

TEST_P(console_line, a_closed_output_loses_the_line) {
  EXPECT_TRUE(prints(-1, "lost\n"));
}

TEST_P(console_line, a_full_device_loses_the_line) {
  const unique_fd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
  EXPECT_TRUE(prints(full.get(), "lost\n"));
}

TEST_P(console_line, a_full_socket_loses_the_line_and_takes_the_next_one) {
  const socket_connection socket;
  const std::size_t filled = socket.fill();
  EXPECT_TRUE(prints(socket.writer(), "lost\n"));
  EXPECT_EQ(socket.text(), std::string(filled, '#'));
  EXPECT_TRUE(prints(socket.writer(), "kept\n"));
  EXPECT_EQ(socket.text(), "kept\n");
}

TEST_P(console_line, a_socket_that_nobody_reads_loses_the_line) {
  socket_connection socket;
  socket.close_reader();
  EXPECT_TRUE(prints(socket.writer(), "lost\n"));
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
  const terminal_connection terminal;
  EXPECT_TRUE(prints(terminal.writer(), "shown\n"));
  EXPECT_EQ(terminal.text(), "shown\r\n");
}

TEST_P(console_line, errno_is_left_as_it_was) {
  const pipe_connection pipe;
  EXPECT_TRUE(prints(pipe.writer(), "kept\n"));
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
    const pipe_connection pipe;
    const std::string text(length, 'x');
    EXPECT_TRUE(prints(pipe.writer(), text.c_str()));
    EXPECT_EQ(pipe.text().size(), std::min(length, kMost));
    EXPECT_TRUE(holds_in_child(pipe.writer(), [&text] {
      prepare();
      console::print_as_format(text.c_str());
      return true;
    }));
    EXPECT_EQ(pipe.text().size(), std::min(length, kMost));
  }
}

std::size_t line_length(char letter) {
  return static_cast<std::size_t>(letter - 'a') * 9 + 2;
}

TEST_P(console_line, lines_of_several_threads_never_mix) {
  const pipe_connection pipe;
  EXPECT_TRUE(holds_in_child(pipe.writer(), [] {
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
  std::istringstream in(pipe.text());
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
  const pipe_connection pipe;
  static_cast<void>(pipe.fill());
  EXPECT_TRUE(holds_in_child(pipe.writer(), [&pipe] {
    console::open();
    int waits = 0;
    // It reads while the line waits for it, however little time that is.
    faults.poll = [&](pollfd* requests, nfds_t count, int milliseconds) {
      if (milliseconds > 0 && ++waits == 1) static_cast<void>(pipe.text());
      return real::poll(requests, count, milliseconds);
    };
    console::print("kept\n");
    return waits == 1 && pipe.text() == "kept\n";
  }));
}

TEST(console_open, a_terminal_that_nobody_reads_does_not_make_a_line_wait) {
  const terminal_connection terminal;
  EXPECT_TRUE(holds_in_child(terminal.writer(), [] {
    console::open();
    const std::string line(1000, 'x');
    for (int i = 0; i < 200; ++i)
      console::print_line(line.c_str());
    return true;
  }));
}

TEST(console_open, the_output_that_others_share_still_blocks) {
  const pipe_connection pipe;
  EXPECT_TRUE(holds_in_child(pipe.writer(), [] {
    console::open();
    return (::fcntl(STDOUT_FILENO, F_GETFL) & O_NONBLOCK) == 0;
  }));
}

TEST(console_open, programs_that_are_started_do_not_get_its_descriptor) {
  const pipe_connection pipe;
  EXPECT_TRUE(holds_in_child(pipe.writer(), [] {
    const std::set<int> before = open_descriptors();
    console::open();
    std::set<int> added = open_descriptors();
    std::erase_if(added, [&before](int fd) { return before.contains(fd); });
    return added.size() == 1 && ::fcntl(*added.begin(), F_GETFD) == FD_CLOEXEC;
  }));
}

TEST(console_open, a_socket_that_nobody_reads_sends_no_signal) {
  socket_connection socket;
  socket.close_reader();
  EXPECT_TRUE(holds_in_child(socket.writer(), [] {
    std::signal(SIGPIPE, SIG_DFL);
    console::open();
    console::print_line("lost");
    return true;
  }));
}

/// What a child prints on standard error.
std::string complaint(const std::function<void()>& complain) {
  const pipe_connection pipe;
  EXPECT_TRUE(holds_in_child(
      pipe.writer(),
      [&complain] {
        errno = ENOENT;
        complain();
        return errno == ENOENT;
      },
      STDERR_FILENO));
  return pipe.text();
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
  const pipe_connection pipe;
  const std::size_t filled = pipe.fill();
  const auto complain = [] {
    errno = EINTR;
    console::report_failure("load", "lost");
    return errno == EINTR;
  };
  EXPECT_TRUE(holds_in_child(pipe.writer(), complain, STDERR_FILENO));
  EXPECT_TRUE(holds_in_child(-1, complain, STDERR_FILENO));
  EXPECT_EQ(pipe.text(), std::string(filled, '#'));
}

}  // namespace
