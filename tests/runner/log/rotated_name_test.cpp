#include "runner/log/rotated_name.h"

#include <gtest/gtest.h>

#include "tests/runner/log/log_place.h"

using runner::find_rotated;
using runner::parse_rotated;
using runner::rotated_name;
using runner::rotated_path;
using kind = runner::rotated_name::kind;

namespace {

/// 2026-11-15 09:02:03.000456 UTC.
constexpr std::int64_t kMoment = 1'794'733'323'000'456;

}  // namespace

TEST(rotated_name, is_the_logs_with_the_moment_in_utc) {
  EXPECT_EQ(rotated_path("/var/log/x.log", {kMoment, kind::plain}),
            "/var/log/x.log.20261115T090203.000456Z");
  EXPECT_EQ(rotated_path("x", {kMoment, kind::compressed}), "x.20261115T090203.000456Z.gz");
  EXPECT_EQ(rotated_path("x", {kMoment, kind::half_compressed}),
            "x.20261115T090203.000456Z.gz.tmp");
  EXPECT_EQ(rotated_path("x", {0, kind::plain}), "x.19700101T000000.000000Z");
}

TEST(rotated_name, is_read_as_it_is_written) {
  for (const kind what : {kind::plain, kind::compressed, kind::half_compressed}) {
    for (const std::int64_t moment :
         {std::int64_t{0}, kMoment, std::int64_t{951'782'400'999'999}}) {
      const auto read = parse_rotated(rotated_path("", {moment, what}).substr(1));
      ASSERT_TRUE(read);
      EXPECT_EQ(read->moment, moment);
      EXPECT_EQ(read->what, what);
    }
  }
}

TEST(rotated_name, is_no_other_name) {
  for (const char* other :
       {"", "1", "1.gz", "20261115T090203.000456", "20261115T090203.000456Zz",
        "20261115T090203.000456Z.xz", "20261115T090203.000456Z.gz.", "20261315T090203.000456Z",
        "20260230T090203.000456Z", "20261115T240203.000456Z", "20261115T096003.000456Z",
        "20261115T090260.000456Z", "2026111 T090203.000456Z", "20261115 090203.000456Z",
        "20261115T090203,000456Z", "20261115T090203.-00456Z"})
    EXPECT_FALSE(parse_rotated(other)) << other;
}

TEST(find_rotated, finds_those_of_one_log_oldest_first) {
  const log_place place;
  const auto write = [&](std::int64_t moment, kind what) {
    place.write_rotated({moment, what}, "");
  };
  write(kMoment + 2, kind::plain);
  write(kMoment, kind::compressed);
  write(kMoment + 1, kind::half_compressed);
  write(kMoment + 1, kind::plain);
  place.directory().write("x.log", "");
  place.directory().write("x.log.1", "");
  place.directory().write("y.log.20261115T090203.000456Z", "");
  place.directory().write("x.logs.20261115T090203.000456Z", "");
  const auto found = find_rotated(place.path());
  ASSERT_EQ(found.size(), 4U);
  EXPECT_EQ(found[0].moment, kMoment);
  EXPECT_EQ(found[0].what, kind::compressed);
  EXPECT_EQ(found[1].moment, kMoment + 1);
  EXPECT_EQ(found[1].what, kind::plain);
  EXPECT_EQ(found[2].what, kind::half_compressed);
  EXPECT_EQ(found[3].moment, kMoment + 2);
}

TEST(find_rotated, finds_nothing_where_there_is_no_directory) {
  EXPECT_TRUE(find_rotated("/nowhere/at/all/x.log").empty());
}

TEST(find_rotated, looks_in_the_working_directory_for_a_bare_name) {
  const log_place place;
  place.write_rotated({kMoment, kind::plain}, "");
  const working_dir there(place.directory().path());
  EXPECT_EQ(find_rotated("x.log").size(), 1U);
}
