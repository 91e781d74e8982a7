#include "runner/log/line_stamp.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "tests/runner/log/moved_clock.h"

using runner::line_stamp;
using runner::stamp_lines;
using runner::stamped;

namespace {

/// Another local time, for as long as the object lives.
class time_zone final {
 public:
  explicit time_zone(const char* name) {
    ::setenv("TZ", name, 1);
    ::tzset();
  }
  time_zone(const time_zone&) = delete;
  time_zone& operator=(const time_zone&) = delete;
  ~time_zone() {
    ::unsetenv("TZ");
    ::tzset();
  }
};

/// 2026-11-15 09:02:03.000456 UTC.
constexpr std::int64_t kMoment = 1'794'733'323'000'456;

std::string stamp_at(std::int64_t moment) {
  moved_clock clock;
  clock.stop_wall(moment);
  line_stamp stamp;
  stamp.set_to_now();
  return std::string(stamp.text());
}

/// All of `text`, by way of an output of that size.
std::string stamp_through(std::string_view text, std::size_t size, bool is_line_open = false) {
  std::vector<char> out(size);
  std::string all;
  while (!text.empty()) {
    const stamped done = stamp_lines(text, is_line_open, "12:00 ", out);
    if (done.taken == 0) return all + "<nothing taken>";
    all.append(out.data(), done.written);
    is_line_open = all.back() != '\n';
    text.remove_prefix(done.taken);
  }
  return all;
}

}  // namespace

TEST(line_stamp, is_local_time_with_its_distance_from_utc) {
  const time_zone east("XXX-1");
  EXPECT_EQ(stamp_at(kMoment), "2026-11-15T10:02:03.000456+01:00 ");
}

TEST(line_stamp, knows_zones_west_of_greenwich_that_are_off_by_minutes) {
  const time_zone west("XXX3:30");
  EXPECT_EQ(stamp_at(kMoment), "2026-11-15T05:32:03.000456-03:30 ");
}

TEST(line_stamp, goes_on_within_a_second_and_across_its_end) {
  const time_zone utc("UTC0");
  moved_clock clock;
  clock.stop_wall(kMoment);
  line_stamp stamp;
  stamp.set_to_now();
  clock.advance_wall(std::chrono::microseconds(999'543));
  stamp.set_to_now();
  EXPECT_EQ(stamp.text(), "2026-11-15T09:02:03.999999+00:00 ");
  clock.advance_wall(std::chrono::microseconds(1));
  stamp.set_to_now();
  EXPECT_EQ(stamp.text(), "2026-11-15T09:02:04.000000+00:00 ");
}

TEST(line_stamp, follows_a_clock_that_is_set_back) {
  const time_zone utc("UTC0");
  moved_clock clock;
  clock.stop_wall(kMoment);
  line_stamp stamp;
  stamp.set_to_now();
  clock.advance_wall(std::chrono::hours(-1));
  stamp.set_to_now();
  EXPECT_EQ(stamp.text(), "2026-11-15T08:02:03.000456+00:00 ");
}

TEST(line_stamp, is_read_as_it_is_written) {
  for (const char* zone : {"UTC0", "XXX-1", "XXX3:30"}) {
    const time_zone here(zone);
    EXPECT_EQ(runner::parse_stamp(stamp_at(kMoment) + "text"), kMoment) << zone;
  }
}

TEST(line_stamp, is_no_other_beginning_of_a_line) {
  for (const char* line :
       {"", "2026-11-15", "2026-11-15T10:02:03.000456+01:00", "2026-11-15 10:02:03.000456+01:00 ",
        "2026-13-15T10:02:03.000456+01:00 ", "2026-11-15T10:02:03.000456 01:00 ",
        "2026-11-15T25:02:03.000456+01:00 ", "2026-11-15T10:02:03.000x56+01:00 "})
    EXPECT_FALSE(runner::parse_stamp(line)) << line;
}

TEST(stamp_lines, puts_it_in_front_of_each_line_that_begins) {
  EXPECT_EQ(stamp_through("a\n\nbc", 100), "12:00 a\n12:00 \n12:00 bc");
  EXPECT_EQ(stamp_through("rest\nnext\n", 100, true), "rest\n12:00 next\n");
  EXPECT_EQ(stamp_through("rest", 100, true), "rest");
}

TEST(stamp_lines, gives_the_same_through_an_output_of_any_size) {
  const std::string text =
      "one\n\n\nfour and more than the output holds\n" + std::string(50, 'x') + "\nnot ended";
  const std::string whole = stamp_through(text, 1000);
  for (std::size_t size = 7; size < 120; ++size)
    EXPECT_EQ(stamp_through(text, size), whole) << size;
}

TEST(stamp_lines, never_leaves_a_stamp_without_its_line) {
  std::vector<char> out(8);
  const stamped done = stamp_lines("a\nb\n", false, "12:00 ", out);
  EXPECT_EQ(std::string(out.data(), done.written), "12:00 a\n");
  EXPECT_EQ(done.taken, 2U);
}
