#include "runner/log/message_sink.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <tuple>

#include "tests/runner/log/message_socket.h"
#include "tests/runner/log/moved_clock.h"
#include "tests/support/scratch_dir.h"

using runner::log_target;
using runner::message_sink;
using texts = std::vector<std::string>;

namespace {

/// A sink and whoever listens to it.
struct connection {
  explicit connection(log_target target, const char* name = "kmd_x")
      : socket(place.file("socket")), sink(target, name, place.file("socket")) {}

  /// The texts of the messages that have come in: what is behind the fields and the end.
  texts received() {
    texts all = socket->messages();
    for (std::string& text : all) {
      text.erase(0, text.find("MESSAGE=") + 8);
      EXPECT_EQ(text.back(), '\n');
      text.pop_back();
    }
    return all;
  }
  /// Sends lines until the reader is full. @return how many were taken.
  std::size_t fill() {
    std::size_t count = 0;
    for (; sink.waits_for() < 0; ++count)
      sink.take("line\n");
    return count;
  }

  scratch_dir place;
  std::optional<message_socket> socket;
  message_sink sink;
};

struct journal : connection {
  journal() : connection(log_target::journal) {}
};

bool is_writable(int fd) {
  pollfd request = {fd, POLLOUT, 0};
  return ::poll(&request, 1, 0) == 1;
}

}  // namespace

TEST(syslog_messages, have_the_head_that_a_local_syslog_expects) {
  ::setenv("TZ", "UTC0", 1);
  ::tzset();
  moved_clock clock;
  clock.stop_wall(1'794'733'323'000'456);
  connection to(log_target::syslog);
  to.sink.take("started\n");
  clock.stop_wall(std::int64_t{1'793'869'200} * 1'000'000);
  to.sink.take("later\n");
  const std::string name = " kmd_x[" + std::to_string(::getpid()) + "]: ";
  EXPECT_EQ(to.socket->messages(), (texts{"<30>Nov 15 09:02:03" + name + "started",
                                          "<30>Nov  5 09:00:00" + name + "later"}));
  ::unsetenv("TZ");
  ::tzset();
}

TEST(journal_messages, have_the_fields_that_the_journal_knows) {
  connection to(log_target::journal, "kmd\n=x");
  to.sink.take("a = b\n\n");
  const std::string head = "PRIORITY=6\nSYSLOG_FACILITY=3\nSYSLOG_IDENTIFIER=kmd?=x\nMESSAGE=";
  EXPECT_EQ(to.socket->messages(), (texts{head + "a = b\n", head + "\n"}));
}

TEST(message_sink, sends_a_line_when_it_is_complete) {
  journal to;
  to.sink.take("one\ntw");
  EXPECT_EQ(to.received(), texts{"one"});
  EXPECT_TRUE(to.sink.is_line_open());
  to.sink.take("o");
  EXPECT_EQ(to.received(), texts{});
  to.sink.take("\nthree\n");
  EXPECT_EQ(to.received(), (texts{"two", "three"}));
  EXPECT_FALSE(to.sink.is_line_open());
}

TEST(message_sink, sends_a_line_that_is_too_long_in_parts_whatever_its_pieces_are) {
  constexpr std::size_t kMost = std::size_t{48} * 1024;
  const std::string line(3 * kMost, 'x');
  for (const std::size_t piece : {std::size_t{1000}, kMost, line.size() + 1}) {
    for (const std::size_t length : {kMost - 1, kMost, kMost + 1, 2 * kMost}) {
      journal to;
      const std::string text = line.substr(0, length) + "\nnext\n";
      for (std::size_t at = 0; at < text.size(); at += piece)
        to.sink.take(std::string_view(text).substr(at, piece));
      texts parts = to.received();
      ASSERT_FALSE(parts.empty());
      EXPECT_EQ(parts.back(), "next");
      parts.pop_back();
      EXPECT_EQ(parts.size(), (length + kMost - 1) / kMost) << length << " by " << piece;
      std::string whole;
      for (const std::string& part : parts)
        whole += part;
      EXPECT_EQ(whole.size(), length) << piece;
    }
  }
}

TEST(message_sink, cuts_for_syslog_what_it_would_not_take) {
  connection to(log_target::syslog, "kmd_x");
  to.sink.take(std::string(10'000, 'x') + "\n");
  const texts parts = to.socket->messages();
  ASSERT_EQ(parts.size(), 2U);
  EXPECT_LT(parts[0].size(), 8192U);
}

TEST(message_sink, waits_for_a_slow_reader_and_loses_nothing) {
  journal to;
  const std::size_t count = to.fill();
  ASSERT_GT(count, 0U);
  EXPECT_FALSE(is_writable(to.sink.waits_for()));
  EXPECT_TRUE(to.sink.next_deadline());
  EXPECT_EQ(to.received().size(), count - 1);
  EXPECT_TRUE(is_writable(to.sink.waits_for()));
  to.sink.on_writable();
  EXPECT_EQ(to.sink.waits_for(), -1);
  EXPECT_FALSE(to.sink.next_deadline());
  EXPECT_EQ(to.received(), texts{"line"});
}

TEST(message_sink, gives_up_waiting_after_a_second_and_says_how_much_was_lost) {
  moved_clock clock;
  journal to;
  to.fill();
  to.sink.on_deadline();
  EXPECT_GE(to.sink.waits_for(), 0);
  clock.advance(std::chrono::milliseconds(1500));
  to.sink.on_deadline();
  EXPECT_EQ(to.sink.waits_for(), -1);
  to.sink.take("two\nthree\n");
  EXPECT_EQ(to.sink.waits_for(), -1);
  std::ignore = to.received();
  to.sink.take("four\n");
  EXPECT_EQ(to.received(),
            (texts{"keelmond-run: 3 lines lost: Resource temporarily unavailable", "four"}));
}

TEST(message_sink, finds_a_reader_that_was_started_anew) {
  moved_clock clock;
  journal to;
  to.sink.take("one\n");
  to.socket.reset();
  to.sink.take("two\nthr");
  to.socket.emplace(to.place.file("socket"));
  to.sink.take("ee\nfour\n");
  EXPECT_EQ(to.received(), texts{});
  clock.advance(std::chrono::seconds(2));
  to.sink.take("five\n");
  EXPECT_EQ(to.received(), (texts{"keelmond-run: 3 lines lost: Connection refused", "five"}));
}

TEST(message_sink, sends_no_end_of_a_line_whose_beginning_was_lost) {
  moved_clock clock;
  journal to;
  to.socket.reset();
  to.sink.take("one\ntw");
  to.socket.emplace(to.place.file("socket"));
  clock.advance(std::chrono::seconds(2));
  to.sink.take("o");
  to.sink.take("\nthree\n");
  EXPECT_EQ(to.received(), (texts{"keelmond-run: 2 lines lost: Connection refused", "three"}));
}

TEST(message_sink, finds_a_reader_that_comes_late) {
  moved_clock clock;
  const scratch_dir place;
  message_sink sink(log_target::syslog, "x", place.file("socket"));
  sink.take("one\n");
  const message_socket socket(place.file("socket"));
  clock.advance(std::chrono::seconds(2));
  sink.take("two\n");
  const texts messages = socket.messages();
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_TRUE(messages[0].ends_with(": keelmond-run: 1 line lost: Connection refused"));
  EXPECT_TRUE(messages[1].ends_with(": two"));
}

TEST(message_sink, knows_where_the_readers_of_the_system_are) {
  EXPECT_STREQ(message_sink::usual_socket(log_target::syslog), "/dev/log");
  EXPECT_STREQ(message_sink::usual_socket(log_target::journal), "/run/systemd/journal/socket");
}
