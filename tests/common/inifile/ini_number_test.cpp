#include "common/inifile/ini_number.h"

#include <gtest/gtest.h>

#include <climits>
#include <limits>
#include <string>

namespace {

using namespace std::string_literals;

TEST(ini_number, converts_the_longest_beginning_that_is_an_integer) {
  const struct {
    const char* text;
    int number;
  } cases[] = {
      {"1", 1},     {"-3", -3}, {"+5", 5},  {"007", 7},   {"12abc", 12},
      {"0x1F", 0},  {"1.9", 1}, {"1e3", 1}, {"  42", 42}, {"\t\r\n 42 7", 42},
      {"1,000", 1}, {"-", 0},   {"- 5", 0},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(ini_number::stoi(each.text), each.number) << each.text;
    EXPECT_EQ(ini_number::stol(each.text), each.number) << each.text;
  }
}

TEST(ini_number, converts_the_longest_beginning_that_is_a_floating_number) {
  const struct {
    const char* text;
    double number;
  } cases[] = {
      {"1.9", 1.9},  {"1e3", 1000},        {"-.5", -0.5}, {"5.", 5},  {"  2.5x", 2.5}, {"0x1F", 0},
      {"12abc", 12}, {"-1.5E-2y", -0.015}, {".", 0},      {"inf", 0}, {"nan", 0},
  };
  for (const auto& each : cases) {
    EXPECT_DOUBLE_EQ(ini_number::stod(each.text), each.number) << each.text;
    EXPECT_FLOAT_EQ(ini_number::stof(each.text), static_cast<float>(each.number)) << each.text;
  }
}

TEST(ini_number, is_zero_for_a_text_that_does_not_begin_with_a_number) {
  for (const std::string& text : {"abc"s, "x1"s, "="s, "true"s,
                                  "\0"
                                  "1"s,
                                  "\xff"s}) {
    EXPECT_EQ(ini_number::stoi(text), 0);
    EXPECT_EQ(ini_number::stol(text), 0);
    EXPECT_EQ(ini_number::stof(text), 0.0F);
    EXPECT_EQ(ini_number::stod(text), 0.0);
  }
}

TEST(ini_number, is_zero_for_an_empty_or_blank_text) {
  for (const char* text : {"", " ", "\t", " \t\r\n\v\f "}) {
    EXPECT_EQ(ini_number::stoi(text), 0);
    EXPECT_EQ(ini_number::stol(text), 0);
    EXPECT_EQ(ini_number::stof(text), 0.0F);
    EXPECT_EQ(ini_number::stod(text), 0.0);
  }
}

TEST(ini_number, prints_six_significant_digits) {
  EXPECT_EQ(ini_number::to_string(0.5), "0.5");
  EXPECT_EQ(ini_number::to_string(2.0), "2");
  EXPECT_EQ(ini_number::to_string(0.1), "0.1");
  EXPECT_EQ(ini_number::to_string(1.0F), "1");
  EXPECT_EQ(ini_number::to_string(1234567.0), "1.23457e+06");
  EXPECT_EQ(ini_number::to_string(100000), "100000");
  EXPECT_EQ(ini_number::to_string(-3), "-3");
  EXPECT_EQ(ini_number::to_string(-9000000000L), "-9000000000");
}

TEST(ini_number, saturates_at_the_ends_of_the_integer_types) {
  EXPECT_EQ(ini_number::stoi("2147483647"), INT_MAX);
  EXPECT_EQ(ini_number::stoi("2147483648"), INT_MAX);
  EXPECT_EQ(ini_number::stoi("-2147483648"), INT_MIN);
  EXPECT_EQ(ini_number::stoi("-2147483649"), INT_MIN);
  EXPECT_EQ(ini_number::stoi("99999999999999999999999"), INT_MAX);
  EXPECT_EQ(ini_number::stol("2147483648"), 2147483648L);
  EXPECT_EQ(ini_number::stol("9223372036854775808"), LONG_MAX);
  EXPECT_EQ(ini_number::stol("-9223372036854775809"), LONG_MIN);
}

TEST(ini_number, saturates_at_the_largest_finite_floating_number) {
  EXPECT_EQ(ini_number::stof("1e39"), std::numeric_limits<float>::max());
  EXPECT_EQ(ini_number::stof("-1e39"), std::numeric_limits<float>::lowest());
  EXPECT_EQ(ini_number::stod("1e39"), 1e39);
  EXPECT_EQ(ini_number::stod("1e309"), std::numeric_limits<double>::max());
  EXPECT_EQ(ini_number::stod("-1e309"), std::numeric_limits<double>::lowest());
}

}  // namespace
