#include "runner/file/words.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using runner::split_names;
using runner::split_words;

namespace {

using words = std::vector<std::string>;

words words_of(std::string_view text) {
  words out;
  EXPECT_EQ(split_words(text, out), "") << text;
  return out;
}

std::string error_of(std::string_view text) {
  words out;
  return split_words(text, out);
}

}  // namespace

TEST(words, are_separated_by_blanks_and_tabs) {
  EXPECT_EQ(words_of("a"), words{"a"});
  EXPECT_EQ(words_of("  a \t b  "), (words{"a", "b"}));
}

TEST(words, keep_what_stands_in_quotes) {
  EXPECT_EQ(words_of("redis-server --save \"3600 1\""),
            (words{"redis-server", "--save", "3600 1"}));
  EXPECT_EQ(words_of("a 'b  c' \"d 'e'\" 'f \"g\"'"), (words{"a", "b  c", "d 'e'", "f \"g\""}));
  EXPECT_EQ(words_of("x'y z'\"q\""), words{"xy zq"});
  EXPECT_EQ(words_of("a '' \"\""), (words{"a", "", ""}));
}

TEST(words, backslashes_take_the_meaning_from_what_follows) {
  EXPECT_EQ(words_of("a\\ b \\\" \\' \\\\"), (words{"a b", "\"", "'", "\\"}));
  EXPECT_EQ(words_of(R"("a\"b\\c\$d\`e\n")"), words{"a\"b\\c$d`e\\n"});
  EXPECT_EQ(words_of(R"('a\b')"), words{"a\\b"});
}

TEST(words, nothing_is_expanded) {
  EXPECT_EQ(words_of("echo $HOME * ~ ? [a] {b} !x a=b a#b"),
            (words{"echo", "$HOME", "*", "~", "?", "[a]", "{b}", "!x", "a=b", "a#b"}));
}

TEST(words, an_open_quote_is_an_error) {
  EXPECT_EQ(error_of("a 'b"), "the quote ' is not closed");
  EXPECT_EQ(error_of("a \"b"), "the quote \" is not closed");
  EXPECT_EQ(error_of("a \"b\\\""), "the quote \" is not closed");
  EXPECT_EQ(error_of("a \\"), "nothing follows the backslash at the end");
}

TEST(words, what_only_a_shell_could_do_is_an_error) {
  for (const char* const text : {"a | b", "a; b", "a && b", "a > b", "a < b", "(a)", "a # b"})
    EXPECT_NE(error_of(text).find("needs a shell"), std::string::npos) << text;
  EXPECT_EQ(words_of("a '|' \";\" \\>"), (words{"a", "|", ";", ">"}));
}

TEST(words, a_command_needs_a_first_word) {
  EXPECT_EQ(error_of("  "), "there is no word in it");
  EXPECT_EQ(error_of("'' a"), "its first word is empty");
}

TEST(words, names_may_have_commas_between_them) {
  EXPECT_EQ(split_names(" a, b\tc ,,d"), (words{"a", "b", "c", "d"}));
  EXPECT_TRUE(split_names(" , ").empty());
}
