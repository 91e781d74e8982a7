#include "runner/file/values.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <limits>

using namespace runner;

TEST(values, truth_has_four_words_for_each) {
  for (const char* const yes : {"yes", "on", "true", "1"})
    EXPECT_EQ(parse_truth(yes), true) << yes;
  for (const char* const no : {"no", "off", "false", "0"})
    EXPECT_EQ(parse_truth(no), false) << no;
  for (const char* const none : {"", "Yes", "2", "y", "yes "})
    EXPECT_FALSE(parse_truth(none)) << none;
}

TEST(values, counts_are_digits_and_fit) {
  EXPECT_EQ(parse_count("0"), 0U);
  EXPECT_EQ(parse_count("18446744073709551615"), std::numeric_limits<std::uint64_t>::max());
  for (const char* const none : {"", "-1", "+1", "1 ", "1.0", "0x1", "18446744073709551616"})
    EXPECT_FALSE(parse_count(none)) << none;
}

TEST(values, integers_lie_between_two) {
  EXPECT_EQ(parse_integer("-20", -20, 19), -20);
  EXPECT_EQ(parse_integer("+19", -20, 19), 19);
  for (const char* const none : {"-21", "20", "--1", "-", "", "99999999999"})
    EXPECT_FALSE(parse_integer(none, -20, 19)) << none;
}

TEST(values, modes_are_octal) {
  EXPECT_EQ(parse_mode("022"), 022U);
  EXPECT_EQ(parse_mode("0777"), 0777U);
  for (const char* const none : {"", "8", "1000", "-1", "0x1", "000022"})
    EXPECT_FALSE(parse_mode(none)) << none;
}

TEST(values, sizes_have_binary_units) {
  EXPECT_EQ(parse_size("4096"), 4096U);
  EXPECT_EQ(parse_size("64K"), 65536U);
  EXPECT_EQ(parse_size("10M"), 10U << 20);
  EXPECT_EQ(parse_size("1GiB"), 1U << 30);
  EXPECT_EQ(parse_size("2TB"), 2ULL << 40);
  for (const char* const none : {"", "K", "10Q", "1.5M", "10 M", "10k", "-1K", "16777216T"})
    EXPECT_FALSE(parse_size(none)) << none;
}

TEST(values, signals_have_names_and_numbers) {
  EXPECT_EQ(parse_signal("TERM"), SIGTERM);
  EXPECT_EQ(parse_signal("SIGQUIT"), SIGQUIT);
  EXPECT_EQ(parse_signal("9"), 9);
  EXPECT_EQ(parse_signal("64"), 64);
  for (const char* const none : {"", "0", "65", "term", "SIG", "SIGSIGTERM"})
    EXPECT_FALSE(parse_signal(none)) << none;
  EXPECT_EQ(parse_signal("IO"), SIGIO);
  EXPECT_EQ(parse_signal("POLL"), SIGIO) << "its other name";
  EXPECT_EQ(parse_signal("STKFLT"), SIGSTKFLT);
  EXPECT_EQ(signal_name(SIGKILL), "KILL");
  EXPECT_EQ(signal_name(SIGIO), "IO");
  EXPECT_EQ(signal_name(40), "40");
}

TEST(values, processors_are_counted_in_hundredths) {
  EXPECT_EQ(parse_processors("1"), 100U);
  EXPECT_EQ(parse_processors("0.5"), 50U);
  EXPECT_EQ(parse_processors("150%"), 150U);
  for (const char* const none : {"", "0", "%", "0.001", "-1", "1x", "100000"})
    EXPECT_FALSE(parse_processors(none)) << none;
}

TEST(values, limits_are_soft_and_hard) {
  const auto both = parse_limit("1024", limit_unit::number);
  ASSERT_TRUE(both);
  EXPECT_EQ(both->rlim_cur, 1024U);
  EXPECT_EQ(both->rlim_max, 1024U);
  const auto each = parse_limit("1M:unlimited", limit_unit::bytes);
  ASSERT_TRUE(each);
  EXPECT_EQ(each->rlim_cur, 1U << 20);
  EXPECT_EQ(each->rlim_max, RLIM_INFINITY);
  for (const char* const none :
       {"", ":", "1:", ":1", "2:1", "unlimited:1", "1:2:3", "1K", "-1", "18446744073709551615"})
    EXPECT_FALSE(parse_limit(none, limit_unit::number)) << none;
}
