#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/inifile/ini_parser.h"
#include "tests/support/scratch_dir.h"

namespace {

class ini_parser_read : public testing::Test {
 protected:
  [[nodiscard]] Tini_parser load(std::string_view text) const {
    dir_.write("test.ini", text);
    return Tini_parser(dir_.file("test.ini"));
  }
  /// A file with one property, "key" of the section "svr0".
  [[nodiscard]] Tini_parser with_value(const std::string& value) const {
    return load("[svr0]\nkey=" + value + "\n");
  }

  scratch_dir dir_;
};

TEST_F(ini_parser_read, tells_whether_a_property_exists) {
  const Tini_parser ini = load("a=1\n[svr0]\nb=2\n");
  EXPECT_TRUE(ini.ensure_property_exists("svr0", "b"));
  EXPECT_FALSE(ini.ensure_property_exists("svr0", "a"));
  EXPECT_FALSE(ini.ensure_property_exists("svr0", "B"));
  EXPECT_FALSE(ini.ensure_property_exists("nosuch", "b"));
  EXPECT_TRUE(ini.ensure_property_exists("", "a"));
  EXPECT_FALSE(ini.ensure_property_exists("", "b"));
}

TEST_F(ini_parser_read, creates_nothing_when_a_property_is_missing) {
  const Tini_parser ini = load("[svr0]\nb=2\n");
  EXPECT_EQ(ini.read_int("svr0", "state", 7), 7);
  EXPECT_EQ(ini.read_int("svr0", "state", 8), 8);
  EXPECT_EQ(ini.read_int("nosuch", "state", 7), 7);
  EXPECT_FALSE(ini.ensure_property_exists("svr0", "state"));
  EXPECT_FALSE(ini.ensure_property_exists("nosuch", "state"));
  EXPECT_EQ(dir_.read("test.ini"), "[svr0]\nb=2\n");
}

TEST_F(ini_parser_read, takes_only_one_and_zero_for_truth_values) {
  EXPECT_TRUE(with_value("1").read_bool("svr0", "key", false));
  EXPECT_FALSE(with_value("0").read_bool("svr0", "key", true));
  for (const char* text : {"true", "false", "yes", "on", "01", "00", "1.", "11", "10"}) {
    EXPECT_TRUE(with_value(text).read_bool("svr0", "key", true)) << text;
    EXPECT_FALSE(with_value(text).read_bool("svr0", "key", false)) << text;
  }
  EXPECT_TRUE(with_value("1").read_bool("svr0", "nosuch", true));
  EXPECT_FALSE(with_value("1").read_bool("svr0", "nosuch", false));
}

TEST_F(ini_parser_read, compares_truth_values_with_their_blanks) {
  const Tini_parser ini = load("one=1 \r\nzero=\t0\n");
  EXPECT_FALSE(ini.read_bool("", "one", false));
  EXPECT_TRUE(ini.read_bool("", "zero", true));
}

TEST_F(ini_parser_read, gives_a_string_or_its_default) {
  const Tini_parser ini = with_value("some text");
  const std::string fallback = "fallback";
  EXPECT_EQ(ini.read_string("svr0", "key", fallback), "some text");
  EXPECT_EQ(ini.read_string("svr0", "nosuch", fallback), "fallback");
  EXPECT_EQ(ini.read_string("nosuch", "key", fallback), "fallback");
}

TEST_F(ini_parser_read, takes_a_literal_for_a_default) {
  const Tini_parser ini = with_value("some text");
  EXPECT_EQ(ini.read_string("svr0", "key", ""), "some text");
  EXPECT_EQ(ini.read_string("svr0", "nosuch", ""), "");
  EXPECT_EQ(ini.read_string("svr0", "nosuch", "literal"), "literal");
  const char* none = nullptr;
  EXPECT_EQ(ini.read_string("svr0", "key", none), "some text");
  EXPECT_EQ(ini.read_string("svr0", "nosuch", none), "");
}

TEST_F(ini_parser_read, copies_a_value_to_a_buffer) {
  const Tini_parser ini = with_value("text");
  char storage[16];
  std::memset(storage, '#', sizeof storage);
  char* out = storage;
  ini.read_string("svr0", "key", out);
  EXPECT_EQ(std::string(storage, sizeof storage), std::string("text\0###########", 16));
}

TEST_F(ini_parser_read, copies_without_a_limit_to_a_buffer_of_unknown_size) {
  const std::string value(10'000, 'v');
  std::vector<char> out(value.size() + 1, '#');
  with_value(value).read_string("svr0", "key", out.data());
  EXPECT_EQ(out.data(), value);
}

TEST_F(ini_parser_read, cuts_a_value_that_does_not_fit_an_array) {
  char out[8];
  for (const auto& [value, expected] :
       std::vector<std::pair<std::string, std::string>>{{"123456", "123456"},
                                                        {"1234567", "1234567"},
                                                        {"12345678", "1234567"},
                                                        {std::string(5000, 'x'), "xxxxxxx"}}) {
    std::memset(out, '#', sizeof out);
    with_value(value).read_string("svr0", "key", out);
    EXPECT_EQ(std::string(out), expected);
  }
  char smallest[1] = {'#'};
  with_value("value").read_string("svr0", "key", smallest);
  EXPECT_EQ(smallest[0], '\0');
}

TEST_F(ini_parser_read, leaves_the_buffer_as_it_was_when_there_is_no_value) {
  const Tini_parser ini = with_value("text");
  char array[8] = "before";
  ini.read_string("svr0", "nosuch", array);
  ini.read_string("nosuch", "key", array);
  EXPECT_STREQ(array, "before");
  char* pointer = array;
  ini.read_string("svr0", "nosuch", pointer);
  EXPECT_STREQ(array, "before");
}

TEST_F(ini_parser_read, leaves_a_null_buffer_alone) {
  char* out = nullptr;
  with_value("text").read_string("svr0", "key", out);
}

TEST_F(ini_parser_read, converts_a_value_to_an_integer) {
  EXPECT_EQ(load("[svr0]\nstate=1\n").read_int("svr0", "state", 0), 1);
  EXPECT_EQ(load("[svr0]\nstate=abc\n").read_int("svr0", "state", 5), 0);
  EXPECT_EQ(load("[svr0]\nother=1\n").read_int("svr0", "state", 0), 0);
  EXPECT_EQ(with_value("2147483648").read_int("svr0", "key", 0), 2147483647);
  EXPECT_EQ(with_value("12abc").read_int("svr0", "key", 0), 12);
  EXPECT_EQ(load("[svr0]\nkey=\t\n").read_int("svr0", "key", 5), 0);
}

TEST_F(ini_parser_read, converts_a_value_to_a_long_integer) {
  EXPECT_EQ(with_value("2147483648").read_long("svr0", "key", 0), 2147483648L);
  EXPECT_EQ(with_value("abc").read_long("svr0", "key", 5), 0);
  EXPECT_EQ(with_value("1").read_long("svr0", "nosuch", -6000000000L), -6000000000L);
}

TEST_F(ini_parser_read, converts_a_value_to_a_float) {
  EXPECT_EQ(with_value("0.5").read_float("svr0", "key", 0), 0.5F);
  EXPECT_EQ(with_value("abc").read_float("svr0", "key", 5), 0.0F);
}

TEST_F(ini_parser_read, takes_only_a_whole_number_for_the_default_of_a_float) {
  const Tini_parser ini = with_value("0.5");
  EXPECT_EQ(ini.read_float("svr0", "nosuch", 3), 3.0F);
  using read_float_type =
      float (Tini_parser::*)(const std::string&, const std::string&, long) const;
  static_assert(std::is_same_v<decltype(&Tini_parser::read_float), read_float_type>);
}

TEST_F(ini_parser_read, converts_a_value_to_a_double) {
  EXPECT_EQ(with_value("1.25e3").read_double("svr0", "key", 0), 1250.0);
  EXPECT_EQ(with_value("abc").read_double("svr0", "key", 5), 0.0);
  EXPECT_EQ(with_value("1").read_double("svr0", "nosuch", 2.75), 2.75);
}

TEST_F(ini_parser_read, reads_the_unnamed_section_of_a_file_that_has_one) {
  const Tini_parser ini = load("k=7\n[svr0]\nl=1\n");
  EXPECT_EQ(ini.read_int("", "k", 5), 7);
  EXPECT_EQ(ini.read_int("", "l", 5), 5);
}

/// What the call throws, "(nothing)" when it throws nothing.
template <typename Call>
std::string error_of(Call call) {
  try {
    call();
  } catch (const std::out_of_range& error) {
    return error.what();
  }
  return "(nothing)";
}

TEST_F(ini_parser_read, throws_for_the_unnamed_section_of_a_file_without_one) {
  const Tini_parser ini = load("[svr0]\nk=7\n");
  char out[8] = "before";
  EXPECT_EQ(error_of([&] { std::ignore = ini.ensure_property_exists("", "k"); }), "map::at");
  EXPECT_EQ(error_of([&] { std::ignore = ini.read_bool("", "k", true); }), "map::at");
  EXPECT_EQ(error_of([&] { std::ignore = ini.read_string("", "k", ""); }), "map::at");
  EXPECT_EQ(error_of([&] { ini.read_string("", "k", out); }), "map::at");
  EXPECT_EQ(error_of([&] { std::ignore = ini.read_int("", "k", 5); }), "map::at");
  EXPECT_EQ(error_of([&] { std::ignore = ini.read_long("", "k", 5); }), "map::at");
  EXPECT_EQ(error_of([&] { std::ignore = ini.read_float("", "k", 5); }), "map::at");
  EXPECT_EQ(error_of([&] { std::ignore = ini.read_double("", "k", 5); }), "map::at");
  EXPECT_STREQ(out, "before");
}

TEST_F(ini_parser_read, throws_for_the_unnamed_section_of_a_missing_file) {
  const Tini_parser ini(dir_.file("missing.ini"));
  EXPECT_EQ(error_of([&] { std::ignore = ini.read_int("", "k", 5); }), "map::at");
}

TEST_F(ini_parser_read, never_throws_for_an_unknown_section_with_a_name) {
  const Tini_parser ini = load("[svr0]\nk=7\n");
  EXPECT_EQ(ini.read_int("nosuch", "k", 5), 5);
  EXPECT_EQ(ini.read_long(" ", "k", 5), 5);
}

TEST_F(ini_parser_read, lists_the_keys_of_a_section_in_byte_order) {
  const Tini_parser ini = load("[svr0]\nb=1\nB=1\na1=1\na10=1\na2=1\n");
  EXPECT_EQ(ini.section_keys("svr0"), (std::vector<std::string>{"B", "a1", "a10", "a2", "b"}));
  EXPECT_EQ(ini.section_keys("nosuch"), std::vector<std::string>{});
  EXPECT_EQ(ini.section_keys(""), std::vector<std::string>{});
}

}  // namespace
