#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "common/misc/fun_misc.h"
#include "tests/common/misc/fake_clock.h"

namespace {

using namespace std::string_literals;

// Random numbers

constexpr std::time_t kNow = 1'700'000'000;

/// What `rand` gives first in that second.
int first_draw(std::time_t second) {
  std::srand(static_cast<unsigned>(second));
  return std::rand();
}

/// All numbers that come out for these bounds in the course of time.
std::set<int> drawn(int a, int b) {
  fake_clock clock{kNow};
  std::set<int> numbers;
  for (int second = 0; second < 500; ++second) {
    clock.set(kNow + second);
    numbers.insert(Tfun_misc::random(a, b));
  }
  return numbers;
}

TEST(fun_misc_random, ascending_bounds_are_both_possible) {
  EXPECT_EQ(drawn(1, 6), (std::set{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(drawn(-2, 0), (std::set{-2, -1, 0}));
  EXPECT_EQ(drawn(4, 5), (std::set{4, 5}));
}

TEST(fun_misc_random, descending_bounds_are_both_left_out) {
  EXPECT_EQ(drawn(6, 1), (std::set{2, 3, 4, 5}));
  EXPECT_EQ(drawn(6, 4), (std::set{5}));
}

TEST(fun_misc_random, equal_bounds_give_the_number_above) {
  EXPECT_EQ(drawn(4, 4), (std::set{5}));
  EXPECT_EQ(drawn(INT_MAX, INT_MAX), (std::set{INT_MAX}));
}

TEST(fun_misc_random, descending_neighbours_give_the_upper_one) {
  EXPECT_EQ(drawn(5, 4), (std::set{5}));
  EXPECT_EQ(drawn(INT_MIN + 1, INT_MIN), (std::set{INT_MIN + 1}));
}

TEST(fun_misc_random, the_number_follows_from_the_second) {
  fake_clock clock{kNow};
  for (std::time_t second = kNow; second < kNow + 20; ++second) {
    clock.set(second);
    const int expected = 1 + first_draw(second) % 6;
    EXPECT_EQ(Tfun_misc::random(1, 6), expected);
    EXPECT_EQ(Tfun_misc::random(1, 6), expected) << "again within the second";
  }
}

TEST(fun_misc_random, every_user_of_rand_is_disturbed) {
  const fake_clock clock{kNow};
  first_draw(kNow);
  const int second_draw = std::rand();
  std::srand(1);
  Tfun_misc::random(1, 6);
  EXPECT_EQ(std::rand(), second_draw);
}

TEST(fun_misc_random, no_bound_is_too_large) {
  const fake_clock clock{kNow};
  const int draw = first_draw(kNow);
  EXPECT_EQ(Tfun_misc::random(INT_MIN, INT_MAX), INT_MIN + draw);
  EXPECT_EQ(Tfun_misc::random(0, INT_MAX), draw);
  EXPECT_EQ(Tfun_misc::random(INT_MAX, INT_MIN), INT_MIN + 1 + draw);
}

constexpr std::string_view kAlphabet = "0123456789abcdefghijklm0123456789nopqrstuvwxyz0123456789";

TEST(fun_misc_guid, an_empty_buffer_gets_32_characters_and_a_terminator) {
  char out[34];
  std::memset(out, '#', sizeof out);
  out[0] = '\0';
  EXPECT_EQ(Tfun_misc::create_guid(out), out);
  EXPECT_EQ(std::strlen(out), 32U);
  EXPECT_EQ(std::string(out).find_first_not_of(kAlphabet), std::string::npos);
  EXPECT_EQ(out[33], '#');
}

TEST(fun_misc_guid, it_is_appended) {
  char out[64] = "id-";
  Tfun_misc::create_guid(out);
  EXPECT_EQ(std::string(out).substr(0, 3), "id-");
  EXPECT_EQ(std::strlen(out), 35U);
}

TEST(fun_misc_guid, each_character_follows_from_the_nanoseconds_it_is_drawn_at) {
  constexpr unsigned kStart = 123'456'789;
  std::string expected;
  for (unsigned i = 0; i < 32; ++i) {
    std::srand(kStart + i * 1000);
    expected += kAlphabet[static_cast<std::size_t>(std::rand()) % 56];
  }
  const fake_clock clock{kNow, kStart, 1000};
  char out[33] = "";
  EXPECT_EQ(Tfun_misc::create_guid(out), expected);
}

TEST(fun_misc_guid, a_digit_is_three_times_as_likely_as_a_letter) {
  std::array<int, 256> count{};
  for (int round = 0; round < 500; ++round) {
    const fake_clock clock{kNow, round * 32L * 7919, 7919};
    char out[33] = "";
    for (const char c : std::string(Tfun_misc::create_guid(out))) {
      ++count[static_cast<unsigned char>(c)];
    }
  }
  double digits = 0;
  double letters = 0;
  for (char c = '0'; c <= '9'; ++c)
    digits += count[static_cast<unsigned char>(c)] / 10.0;
  for (char c = 'a'; c <= 'z'; ++c)
    letters += count[static_cast<unsigned char>(c)] / 26.0;
  EXPECT_NEAR(digits / letters, 3.0, 0.5);
}

TEST(fun_misc_guid, a_null_buffer_gets_none) {
  EXPECT_EQ(Tfun_misc::create_guid(nullptr), nullptr);
}

// Versions

TEST(fun_misc_version, the_first_number_that_differs_decides) {
  EXPECT_EQ(Tfun_misc::compare_ver("1.2.10.0", "1.2.9.9"), 1);
  EXPECT_EQ(Tfun_misc::compare_ver("1.2.9.9", "1.2.10.0"), 0);
  EXPECT_EQ(Tfun_misc::compare_ver("2.0", "1.9.9.9"), 1);
  EXPECT_EQ(Tfun_misc::compare_ver("1.9.9.9", "2.0"), 0);
  EXPECT_EQ(Tfun_misc::compare_ver("1.3.0.0", "1.2.9.9"), 1);
  EXPECT_EQ(Tfun_misc::compare_ver("1.2.3.5", "1.2.3.4"), 1);
  EXPECT_EQ(Tfun_misc::compare_ver("1.2.3.4", "1.2.3.5"), 0);
}

TEST(fun_misc_version, equal_versions_are_not_higher) {
  EXPECT_EQ(Tfun_misc::compare_ver("1.2.3.4", "1.2.3.4"), 0);
  EXPECT_EQ(Tfun_misc::compare_ver("1.2", "1.2.0.0"), 0);
  EXPECT_EQ(Tfun_misc::compare_ver("1.2.3.4.5", "1.2.3.4.4"), 0) << "the fifth does not count";
}

TEST(fun_misc_version, numbers_are_read_as_scanf_reads_them) {
  EXPECT_EQ(Tfun_misc::compare_ver(" 1. 2", "1.1"), 1);
  EXPECT_EQ(Tfun_misc::compare_ver("1.-1", "1"), 0);
  EXPECT_EQ(Tfun_misc::compare_ver("1.+1", "1"), 1);
  EXPECT_EQ(Tfun_misc::compare_ver("01.02", "1.2"), 0);
  EXPECT_EQ(Tfun_misc::compare_ver("1.010", "1.9"), 1) << "decimal for all its zero";
  EXPECT_EQ(Tfun_misc::compare_ver("1.2b.9", "1.2.0"), 0) << "nothing behind the b is read";
  EXPECT_EQ(Tfun_misc::compare_ver("1 .5", "1.4"), 0) << "no blank before the point";
  EXPECT_EQ(Tfun_misc::compare_ver("1x5", "1.4"), 0) << "only a point separates";
  EXPECT_EQ(Tfun_misc::compare_ver("v2", "1"), 0);
}

TEST(fun_misc_version, a_null_version_counts_as_empty) {
  EXPECT_EQ(Tfun_misc::compare_ver("0.0.0.1", nullptr), 1);
  EXPECT_EQ(Tfun_misc::compare_ver(nullptr, "0"), 0);
}

// Sizes

std::string size_text(long size) {
  char out[32] = "was ";
  Tfun_misc::calc_file_view_size(size, out);
  return out;
}

TEST(fun_misc_size, no_size_is_appended) {
  EXPECT_EQ(size_text(0), "was  0 Byte");
  EXPECT_EQ(size_text(-1), "was  0 Byte");
  EXPECT_EQ(size_text(LONG_MIN), "was  0 Byte");
}

TEST(fun_misc_size, each_unit_begins_at_1024_of_the_one_before) {
  EXPECT_EQ(size_text(1), "1 Byte");
  EXPECT_EQ(size_text(1023), "1023 Byte");
  EXPECT_EQ(size_text(1024), "1.00 KB");
  EXPECT_EQ(size_text(1536), "1.50 KB");
  EXPECT_EQ(size_text(1048575), "1024.00 KB");
  EXPECT_EQ(size_text(1048576), "1.00 MB");
  EXPECT_EQ(size_text(1073741823), "1024.00 MB");
  EXPECT_EQ(size_text(1073741824), "1.0000 GB");
  EXPECT_EQ(size_text(LONG_MAX), "8589934592.0000 GB");
}

TEST(fun_misc_size, sizes_are_scaled_in_single_precision) {
  // In double precision: 117737.3779 GB, 16.02 MB and 187.70 MB.
  EXPECT_EQ(size_text(126'419'546'911'744), "117737.3750 GB");
  EXPECT_EQ(size_text(16'792'945), "16.01 MB");
  EXPECT_EQ(size_text(196'822'953), "187.71 MB");
}

TEST(fun_misc_size, a_null_buffer_is_left_alone) {
  Tfun_misc::calc_file_view_size(0, nullptr);
  Tfun_misc::calc_file_view_size(1, nullptr);
}

// Changes in place

std::string trimmed(std::string text, bool leading_only) {
  EXPECT_EQ(Tfun_misc::string_trim(text.data(), leading_only), text.data());
  return text;
}

TEST(fun_misc_trim, every_blank_is_removed) {
  EXPECT_EQ(trimmed("  a b  ", false), "ab\0\0\0\0\0"s);
  EXPECT_EQ(trimmed("a\tb\n c", false), "a\tb\nc\0"s) << "only blanks count";
  EXPECT_EQ(trimmed("   ", false), "\0\0\0"s);
  EXPECT_EQ(trimmed("", false), "");
}

TEST(fun_misc_trim, only_leading_blanks_are_removed_and_those_at_the_end_stay) {
  EXPECT_EQ(trimmed("  a b  ", true), "a b  \0\0"s);
  EXPECT_EQ(trimmed("\t a", true), "\t a");
  EXPECT_EQ(trimmed("a ", true), "a ");
  EXPECT_EQ(trimmed("   ", true), "\0\0\0"s);
}

TEST(fun_misc_trim, a_text_of_any_length_is_trimmed) {
  for (const std::size_t length : {197U, 198U, 199U, 5000U}) {
    const std::string letters(length, 'x');
    EXPECT_EQ(trimmed("  " + letters, true), letters + "\0\0"s);
    EXPECT_EQ(trimmed(" " + letters + " ", false), letters + "\0\0"s);
  }
  EXPECT_EQ(Tfun_misc::string_trim(nullptr, true), nullptr);
}

std::string replaced(std::string text, const char* find, const char* repl) {
  Tfun_misc::ReplaceLetter(text.data(), find, repl);
  return text;
}

TEST(fun_misc_replace, the_first_character_of_each_occurrence_is_replaced) {
  EXPECT_EQ(replaced("a/b/c", "/", "\\"), "a\\b\\c");
  EXPECT_EQ(replaced("one two one", "one", "Only"), "One two One");
  EXPECT_EQ(replaced("aaa", "aa", "b"), "bba") << "occurrences may overlap";
  EXPECT_EQ(replaced("abc", "x", "y"), "abc");
}

TEST(fun_misc_replace, a_changed_character_can_be_part_of_the_next_occurrence) {
  EXPECT_EQ(replaced("xab", "ab", "x"), "xxb");
  EXPECT_EQ(replaced("aab", "a", "b"), "bbb");
}

TEST(fun_misc_replace, a_search_that_would_never_end_does_nothing) {
  EXPECT_EQ(replaced("a/b", "/", "/x"), "a/b");
  EXPECT_EQ(replaced("a/b", "", "x"), "a/b");
}

TEST(fun_misc_replace, an_empty_replacement_ends_the_text) {
  EXPECT_EQ(replaced("a/b/c", "/", ""), "a\0b/c"s);
}

TEST(fun_misc_replace, null_and_empty_texts_are_left_alone) {
  EXPECT_EQ(replaced("", "a", "b"), "");
  EXPECT_EQ(replaced("a", nullptr, "b"), "a");
  EXPECT_EQ(replaced("a", "a", nullptr), "a");
  Tfun_misc::ReplaceLetter(nullptr, "a", "b");
}

TEST(fun_misc_case, each_byte_changes_its_case) {
  char text[] = "aZ09_\xC4{";
  EXPECT_EQ(Tfun_misc::strupr(text), text);
  EXPECT_STREQ(text, "AZ09_\xC4{");
  EXPECT_EQ(Tfun_misc::strlwr(text), text);
  EXPECT_STREQ(text, "az09_\xC4{");
  EXPECT_EQ(Tfun_misc::stoupper(text), text);
  EXPECT_STREQ(text, "AZ09_\xC4{");
}

TEST(fun_misc_case, null_and_empty_texts_are_returned) {
  char empty[] = "";
  for (const auto change : {&Tfun_misc::strlwr, &Tfun_misc::strupr, &Tfun_misc::stoupper}) {
    EXPECT_EQ(change(nullptr), nullptr);
    EXPECT_EQ(change(empty), empty);
  }
}

std::string adjusted(std::string format) {
  Tfun_misc::AdjustPrintFormat(format.data());
  return format;
}

TEST(fun_misc_format, every_unsigned_long_becomes_an_unsigned) {
  EXPECT_EQ(adjusted("pid %lu of %lu"), "pid %u of %u\0\0"s);
  EXPECT_EQ(adjusted("%lu"), "%u\0"s);
  EXPECT_EQ(adjusted("%lu%lu%lu"), "%u%u%u\0\0\0"s);
  EXPECT_EQ(adjusted("%%lulu"), "%%ulu\0"s);
}

TEST(fun_misc_format, other_conversions_stay) {
  EXPECT_EQ(adjusted("%ld %u %llu %08lu lu"), "%ld %u %llu %08lu lu");
  EXPECT_EQ(adjusted(""), "");
}

TEST(fun_misc_format, a_format_of_any_length_is_adjusted) {
  for (const std::size_t length : {1020U, 1021U, 1024U, 5000U}) {
    const std::string letters(length, 'x');
    EXPECT_EQ(adjusted(letters + "%lu"), letters + "%u\0"s);
  }
  Tfun_misc::AdjustPrintFormat(nullptr);
}

// Searches

TEST(fun_misc_space, any_white_space_is_found) {
  for (const char* text : {" ", "a b", "a\t", "\nb", "\v", "\f", "\r"}) {
    EXPECT_EQ(Tfun_misc::is_have_space(text), 1);
  }
  EXPECT_EQ(Tfun_misc::is_have_space("ab_\xC4"), 0);
  EXPECT_EQ(Tfun_misc::is_have_space(""), 0);
  EXPECT_EQ(Tfun_misc::is_have_space(nullptr), 0);
}

TEST(fun_misc_str_pos, the_last_occurrence_is_found) {
  EXPECT_EQ(Tfun_misc::get_last_str_pos("a/b/c", "/"), 3);
  EXPECT_EQ(Tfun_misc::get_last_str_pos("one two one", "one"), 8);
  EXPECT_EQ(Tfun_misc::get_last_str_pos("aaa", "aa"), 1);
  EXPECT_EQ(Tfun_misc::get_last_str_pos("abc", "abc"), 0);
}

TEST(fun_misc_str_pos, what_is_not_there_is_not_found) {
  EXPECT_EQ(Tfun_misc::get_last_str_pos("abc", "x"), -1);
  EXPECT_EQ(Tfun_misc::get_last_str_pos("abc", "cd"), -1);
  EXPECT_EQ(Tfun_misc::get_last_str_pos("abc", "abcd"), -1);
  EXPECT_EQ(Tfun_misc::get_last_str_pos("", "a"), -1);
  EXPECT_EQ(Tfun_misc::get_last_str_pos("a", ""), -1);
  EXPECT_EQ(Tfun_misc::get_last_str_pos("", ""), -1);
  EXPECT_EQ(Tfun_misc::get_last_str_pos(nullptr, "a"), -1);
  EXPECT_EQ(Tfun_misc::get_last_str_pos("a", nullptr), -1);
}

// String lists

/// Releases what the test put into it.
class string_list : public testing::Test {
 protected:
  ~string_list() override { Tfun_misc::del_string_list(list_); }

  [[nodiscard]] std::vector<std::string> texts() const { return {list_.begin(), list_.end()}; }
  /// The pieces of a text, in a list of their own.
  static std::vector<std::string> pieces(const char* text, const char* delim) {
    std::vector<char*> list;
    Tfun_misc::split_string(text, 0, delim, list);
    std::vector<std::string> texts(list.begin(), list.end());
    Tfun_misc::del_string_list(list);
    return texts;
  }

  std::vector<char*> list_;
};

using fun_misc_string_list = string_list;
using strings = std::vector<std::string>;

TEST_F(fun_misc_string_list, a_text_is_appended_up_to_the_length_given) {
  Tfun_misc::add_string("abc", 2, list_);
  Tfun_misc::add_string("abc", 3, list_);
  Tfun_misc::add_string("abc", 0, list_);
  EXPECT_EQ(texts(), (strings{"ab", "abc", ""}));
}

TEST_F(fun_misc_string_list, a_shorter_text_is_followed_by_zeros) {
  Tfun_misc::add_string("ab\0cd", 5, list_);
  EXPECT_EQ(std::string(list_[0], 6), "ab\0\0\0\0"s);
}

TEST_F(fun_misc_string_list, no_more_of_a_text_is_read_than_is_asked_for) {
  const std::vector<char> unterminated{'a', 'b'};
  Tfun_misc::add_string(unterminated.data(), 2, list_);
  EXPECT_EQ(texts(), (strings{"ab"}));
}

TEST_F(fun_misc_string_list, lengths_and_texts_outside_the_range_are_empty) {
  Tfun_misc::add_string("abc", -1, list_);
  Tfun_misc::add_string("abc", INT_MIN, list_);
  Tfun_misc::add_string(nullptr, 2, list_);
  EXPECT_EQ(texts(), (strings{"", "", ""}));
}

TEST_F(fun_misc_string_list, a_text_is_split_at_its_delimiters) {
  Tfun_misc::add_string("first", 5, list_);
  Tfun_misc::split_string("a,b,c", 0, ",", list_);
  EXPECT_EQ(texts(), (strings{"first", "a", "b", "c"}));
  EXPECT_EQ(pieces("one", ","), (strings{"one"}));
  EXPECT_EQ(pieces("a::b:c", "::"), (strings{"a", "b:c"}));
}

TEST_F(fun_misc_string_list, the_number_given_for_a_split_means_nothing) {
  for (const int n : {INT_MIN, 1, INT_MAX})
    Tfun_misc::split_string("a,b", n, ",", list_);
  EXPECT_EQ(texts(), (strings{"a", "b", "a", "b", "a", "b"}));
}

TEST_F(fun_misc_string_list, empty_pieces_are_left_out) {
  EXPECT_EQ(pieces(",a,,b,", ","), (strings{"a", "b"}));
  EXPECT_EQ(pieces(",", ","), (strings{}));
  EXPECT_EQ(pieces("", ","), (strings{}));
  EXPECT_EQ(pieces(nullptr, ","), (strings{}));
}

TEST_F(fun_misc_string_list, without_a_delimiter_the_text_is_one_piece) {
  EXPECT_EQ(pieces("a,b", ""), (strings{"a,b"}));
  EXPECT_EQ(pieces("a,b", nullptr), (strings{"a,b"}));
}

TEST_F(fun_misc_string_list, a_released_list_keeps_its_size) {
  std::vector<char*> list;
  Tfun_misc::split_string("a,b", 0, ",", list);
  list.push_back(nullptr);
  Tfun_misc::del_string_list(list);
  EXPECT_EQ(list.size(), 3U);
}

}  // namespace
