#include "control/site/log_reader.h"

#include <gtest/gtest.h>

#include <ctime>

#include "tests/support/scratch_dir.h"

using control::log_event;
using control::log_parser;
using kind = control::log_event::kind;

namespace {

constexpr char kTime1[] = "2026-11-15 10:02:03\r\n";
constexpr char kTime2[] = "2026-11-15 10:02:04\r\n";

std::vector<log_event> parse(const std::string& text) {
  log_parser parser;
  parser.feed(text);
  parser.finish();
  return parser.take();
}

}  // namespace

TEST(log_reader, gives_each_message_the_time_behind_it) {
  const auto events = parse(
      "\r\n-------------333-------------------------------- Running\r\n"
      "keelmond Start PID: 100 \r\n" +
      std::string(kTime1) + "launched sub process PID: 4711 \r\n" + kTime2 +
      "exited process PID: 4294967295  errno: 10\r\n" + kTime2 +
      "XXXXXXXXXXX No finish for close log file. \n");
  ASSERT_EQ(events.size(), 4U);
  EXPECT_EQ(events[0].what, kind::supervisor_started);
  EXPECT_EQ(events[0].pid, 100);
  EXPECT_EQ(events[0].time, "2026-11-15 10:02:03");
  EXPECT_EQ(events[1].what, kind::launched);
  EXPECT_EQ(events[1].pid, 4711);
  EXPECT_EQ(events[1].time, "2026-11-15 10:02:04");
  EXPECT_EQ(events[2].what, kind::ended);
  EXPECT_EQ(events[2].message, "exited process PID: 4294967295  errno: 10");
  EXPECT_EQ(events[3].what, kind::supervisor_ended);
  EXPECT_EQ(events[3].time, "2026-11-15 10:02:04");
}

TEST(log_reader, gives_times_in_the_order_of_the_messages_when_pieces_mix) {
  const auto events = parse(std::string("launched sub process PID: 1 \r\n") +
                            "launched sub process PID: 2 \r\n" + kTime1 + kTime2);
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].pid, 1);
  EXPECT_EQ(events[0].time, "2026-11-15 10:02:03");
  EXPECT_EQ(events[1].pid, 2);
  EXPECT_EQ(events[1].time, "2026-11-15 10:02:04");
}

TEST(log_reader, does_not_shift_all_times_after_a_message_that_never_got_one) {
  const auto events = parse(std::string("launched sub process PID: 1 \r\n") + kTime1 +
                            "launched sub process PID: 2 \r\n" +
                            "\r\n-------------333-------------------------------- Running\r\n" +
                            "keelmond Start PID: 3 \r\n" + kTime2);
  ASSERT_EQ(events.size(), 3U);
  EXPECT_EQ(events[1].time, "2026-11-15 10:02:03");
  EXPECT_EQ(events[2].time, "2026-11-15 10:02:04");
}

TEST(log_reader, names_the_program_where_the_message_does) {
  const auto events = parse(
      "access(X_OK) .errno:13 error:Permission denied (/srv/kmd_web)\n" + std::string(kTime1) +
      "server.ini: entry svr2 (kmd_db) refused: state is longer than 127 bytes or holds a "
      "NUL byte.\r\n" +
      kTime1);
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].what, kind::not_executable);
  EXPECT_EQ(events[0].program, "/srv/kmd_web");
  EXPECT_EQ(events[1].what, kind::refused);
  EXPECT_EQ(events[1].program, "kmd_db");
}

TEST(log_reader, takes_the_same_from_any_pieces) {
  const std::string text = "launched sub process PID: 1 \r\n" + std::string(kTime1) +
                           "exited process PID: 4294967295  errno: 10\r\n" + kTime2 + "odd line\n";
  const auto whole = parse(text);
  for (std::size_t size = 1; size < text.size(); ++size) {
    log_parser parser;
    for (std::size_t at = 0; at < text.size(); at += size)
      parser.feed(std::string_view(text).substr(at, size));
    parser.finish();
    const auto events = parser.take();
    ASSERT_EQ(events.size(), whole.size());
    for (std::size_t i = 0; i < events.size(); ++i) {
      EXPECT_EQ(events[i].message, whole[i].message);
      EXPECT_EQ(events[i].time, whole[i].time);
    }
  }
}

TEST(log_reader, begins_with_a_whole_line_in_the_middle_of_a_log) {
  const scratch_dir place;
  std::string text;
  for (int i = 1; i <= 100; ++i)
    text += "launched sub process PID: " + std::to_string(i) + " \r\n" + kTime1;
  place.write("log", text);
  const auto events = control::read_last_events(place.file("log"), 500);
  ASSERT_FALSE(events.empty());
  EXPECT_LT(events.size(), 12U);
  EXPECT_EQ(events.back().pid, 100);
  for (const log_event& event : events)
    EXPECT_EQ(event.what, kind::launched);
  EXPECT_EQ(control::read_last_events(place.file("log"), 1 << 20).size(), 100U);
  EXPECT_TRUE(control::read_last_events(place.file("none"), 100).empty());
}

TEST(log_reader, reads_times_as_local_ones) {
  log_event event;
  event.time = "1970-01-02 00:00:00";
  std::tm utc{};
  const std::time_t seconds = control::seconds_of(event);
  ::localtime_r(&seconds, &utc);
  EXPECT_EQ(utc.tm_mday, 2);
  EXPECT_EQ(utc.tm_hour, 0);
  event.time = "";
  EXPECT_EQ(control::seconds_of(event), 0);
}
