#include "common/inifile/ini_line.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace {

using namespace std::string_view_literals;

/// Many zero bytes that take no memory as long as they are only read.
class huge_text final {
 public:
  explicit huge_text(std::size_t size)
      : size_(size),
        data_(::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {}
  huge_text(const huge_text&) = delete;
  huge_text& operator=(const huge_text&) = delete;
  ~huge_text() {
    if (valid()) ::munmap(data_, size_);
  }
  [[nodiscard]] bool valid() const { return data_ != MAP_FAILED; }
  [[nodiscard]] char* data() const { return static_cast<char*>(data_); }
  [[nodiscard]] std::string_view view() const { return {data(), size_}; }

 private:
  std::size_t size_;
  void* data_;
};

constexpr std::size_t kTwoGiB = std::size_t{1} << 31;

struct trim_case {
  std::string_view text;
  std::string_view trimmed;
};

TEST(ini_line_trim, removes_spaces_from_both_ends) {
  const trim_case cases[] = {
      {"ab", "ab"},         {"  ab", "ab"},     {"ab  ", "ab"}, {" ab ", "ab"},
      {"  a b  ", "a b"},   {" a", "a"},        {" a ", "a"},   {"", ""},
      {"\tab\t", "\tab\t"}, {" \tab ", "\tab"}, {"a", "a"},     {"ab\r ", "ab\r"},
  };
  for (const trim_case& each : cases)
    EXPECT_EQ(ini_line::trim_func_s(each.text), each.trimmed);
}

TEST(ini_line_trim, keeps_spaces_after_a_text_whose_only_character_is_its_first) {
  EXPECT_EQ(ini_line::trim_func_s("a   "), "a   ");
  EXPECT_EQ(ini_line::trim_func_s("ab   "), "ab");
  EXPECT_EQ(ini_line::trim_func_s(" a   "), "a");
}

TEST(ini_line_trim, leaves_a_text_of_nothing_but_spaces_as_it_is) {
  EXPECT_EQ(ini_line::trim_func_s("   "), "   ");
  EXPECT_EQ(ini_line::trim_func_s(" "), " ");
}

TEST(ini_line_trim, removes_carriage_returns_by_the_same_rule) {
  EXPECT_EQ(ini_line::trim_func_r("ab\r"), "ab");
  EXPECT_EQ(ini_line::trim_func_r("\r\rab\r\r"), "ab");
  EXPECT_EQ(ini_line::trim_func_r("a\r"), "a\r");
  EXPECT_EQ(ini_line::trim_func_r("\r\r"), "\r\r");
  EXPECT_EQ(ini_line::trim_func_r("a\rb"), "a\rb");
  EXPECT_EQ(ini_line::trim_func_r(" ab "), " ab ");
  EXPECT_EQ(ini_line::trim_func_r(""), "");
}

TEST(ini_line_trim, removes_spaces_before_carriage_returns) {
  EXPECT_EQ(ini_line::trim_func("  ab\r"), "ab");
  EXPECT_EQ(ini_line::trim_func("k=v \r"), "k=v ");
  EXPECT_EQ(ini_line::trim_func("\r ab"), " ab");
  EXPECT_EQ(ini_line::trim_func("ab\r "), "ab");
}

TEST(ini_line_trim, keeps_zero_bytes) {
  EXPECT_EQ(ini_line::trim_func(" \0a\0 "sv), "\0a\0"sv);
}

TEST(ini_line_trim, leaves_a_text_as_it_is_whose_last_character_lies_beyond_the_index_range) {
  const huge_text text(kTwoGiB + 2);
  if (!text.valid()) GTEST_SKIP() << "no address space";
  text.data()[0] = ' ';
  EXPECT_EQ(ini_line::trim_func_s(text.view()).size(), text.view().size());
  EXPECT_EQ(ini_line::trim_func_s(text.view().substr(0, kTwoGiB)).size(), kTwoGiB - 1);
}

TEST(ini_line_comment, begins_with_one_of_five_characters) {
  for (const char* line : {"#x", "%x", "/x", ";x", "@x"}) {
    EXPECT_TRUE(ini_line::is_comment_line(line)) << line;
  }
  for (const char* line : {"x#", "!x", "\\x", " #", "", "[x", "'x", "$x"}) {
    EXPECT_FALSE(ini_line::is_comment_line(line)) << line;
  }
  EXPECT_FALSE(ini_line::is_comment_line(nullptr));
}

TEST(ini_line_kept, has_two_characters_or_more_and_is_no_comment) {
  EXPECT_FALSE(ini_line::is_kept_line(""));
  EXPECT_FALSE(ini_line::is_kept_line("a"));
  EXPECT_TRUE(ini_line::is_kept_line("ab"));
  EXPECT_TRUE(ini_line::is_kept_line("  "));
  EXPECT_TRUE(ini_line::is_kept_line("\0\0"sv));
  EXPECT_FALSE(ini_line::is_kept_line("; note"));
  EXPECT_FALSE(ini_line::is_kept_line("//"));
}

TEST(ini_line_kept, is_not_a_line_of_two_gibibytes) {
  const huge_text text(kTwoGiB);
  if (!text.valid()) GTEST_SKIP() << "no address space";
  EXPECT_TRUE(ini_line::is_kept_line(text.view().substr(0, kTwoGiB - 1)));
  EXPECT_FALSE(ini_line::is_kept_line(text.view()));
}

TEST(ini_line_section, is_enclosed_in_brackets) {
  for (const std::string_view line : {"[ab]"sv, "[]"sv, "[a]"sv, "[[x]]"sv, "[k=v]"sv, "[ a ]"sv}) {
    EXPECT_TRUE(ini_line::is_section_start_line(line)) << line;
  }
  for (const std::string_view line :
       {""sv, "["sv, "]"sv, "[ab"sv, "ab]"sv, "[ab] "sv, " [ab]"sv, "[ab];x"sv, "\n[ab]"sv}) {
    EXPECT_FALSE(ini_line::is_section_start_line(line)) << line;
  }
}

TEST(ini_line_section, may_end_in_a_carriage_return_and_then_needs_no_opening_bracket) {
  EXPECT_TRUE(ini_line::is_section_start_line("[ab]\r"));
  EXPECT_TRUE(ini_line::is_section_start_line("ab]\r"));
  EXPECT_TRUE(ini_line::is_section_start_line("]\r"));
  EXPECT_FALSE(ini_line::is_section_start_line("[ab\r"));
  EXPECT_FALSE(ini_line::is_section_start_line("\r"));
  EXPECT_FALSE(ini_line::is_section_start_line("[ab]\r\r"));
}

TEST(ini_line_section, opens_only_when_its_name_ends_behind_the_second_character) {
  for (const std::string_view line : {"[ab]"sv, "[[x]]"sv, "[ x]"sv, "[[[]"sv}) {
    EXPECT_TRUE(ini_line::opens_section(line)) << line;
  }
  for (const std::string_view line : {"[a]"sv, "[]"sv, "[a]]]"sv, "[[]"sv, "]\r"sv}) {
    EXPECT_FALSE(ini_line::opens_section(line)) << line;
  }
}

TEST(ini_line_section, name_loses_every_outer_bracket_and_nothing_else) {
  const trim_case cases[] = {
      {"[ab]", "ab"},      {"[[x]]", "x"},   {"[ x ]", " x "}, {"[ a b ]", " a b "},
      {"[a]b]", "a]b"},    {"[a[b]", "a[b"}, {"[]", ""},       {"[[]", ""},
      {"[]]", ""},         {"[[[]", ""},     {"[]x[]", "]x["}, {"ab]\r", "ab]\r"},
      {"[ab]\r", "ab]\r"}, {"[[", ""},       {"", ""},
  };
  for (const trim_case& each : cases) {
    EXPECT_EQ(ini_line::extract_section_name(each.text), each.trimmed) << each.text;
  }
}

TEST(ini_line_assignment, has_its_first_equals_sign_neither_first_nor_last) {
  for (const std::string_view line : {"k=v"sv, "k=="sv, "k=v="sv, "k==v"sv, " =v"sv, "[k=v"sv}) {
    EXPECT_TRUE(ini_line::is_assignment_line(line)) << line;
  }
  for (const std::string_view line : {"k="sv, "=v"sv, "=="sv, "="sv, "text"sv, ""sv, "=k=v"sv}) {
    EXPECT_FALSE(ini_line::is_assignment_line(line)) << line;
  }
}

TEST(ini_line_assignment, is_taken_apart_at_its_first_equals_sign) {
  EXPECT_EQ(ini_line::extract_key("k=v"), "k");
  EXPECT_EQ(ini_line::extract_value("k=v"), "v");
  EXPECT_EQ(ini_line::extract_key("k==v"), "k");
  EXPECT_EQ(ini_line::extract_value("k==v"), "=v");
  EXPECT_EQ(ini_line::extract_key("ab = 1 = 2"), "ab ");
  EXPECT_EQ(ini_line::extract_value("ab = 1 = 2"), " 1 = 2");
}

TEST(ini_line_assignment, without_an_equals_sign_is_all_key) {
  EXPECT_EQ(ini_line::extract_key("text"), "text");
  EXPECT_EQ(ini_line::extract_value("text"), "");
}

TEST(ini_line_classify, never_takes_a_header_for_an_assignment) {
  EXPECT_EQ(ini_line::classify("[k=v]"), ini_line::meaning::section);
  EXPECT_EQ(ini_line::classify("k=v]\r"), ini_line::meaning::section);
  EXPECT_EQ(ini_line::classify("[a]"), ini_line::meaning::section);
  EXPECT_EQ(ini_line::classify("k=v"), ini_line::meaning::assignment);
  EXPECT_EQ(ini_line::classify("k="), ini_line::meaning::none);
  EXPECT_EQ(ini_line::classify("text"), ini_line::meaning::none);
}

}  // namespace
