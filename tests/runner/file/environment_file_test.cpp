#include "runner/file/environment_file.h"

#include <gtest/gtest.h>

#include <string>

using runner::environment_fault;
using runner::environment_list;
using runner::is_variable_name;
using runner::read_environment;

namespace {

environment_list variables_of(std::string_view text) {
  environment_list out;
  const environment_fault fault = read_environment(text, out);
  EXPECT_EQ(fault.line, 0U) << fault.text;
  return out;
}

std::string fault_of(std::string_view text) {
  environment_list out;
  const environment_fault fault = read_environment(text, out);
  return std::to_string(fault.line) + ": " + fault.text;
}

}  // namespace

TEST(environment_file, has_a_variable_in_each_line) {
  EXPECT_EQ(variables_of("A=1\nB = two words  \n C=\nD=x=y\r\n"),
            (environment_list{{"A", "1"}, {"B", "two words"}, {"C", ""}, {"D", "x=y"}}));
}

TEST(environment_file, comments_and_empty_lines_do_not_count) {
  EXPECT_EQ(variables_of("# A=1\n\n  ; B=2\n\t\nC=3#4 ;5"), (environment_list{{"C", "3#4 ;5"}}));
}

TEST(environment_file, quotes_keep_blanks_and_lines) {
  EXPECT_EQ(variables_of("A=\" x \"\nB='y\nz'\nC= 'b c' \"d\"  \nD=''\n"),
            (environment_list{{"A", " x "}, {"B", "y\nz"}, {"C", "b cd"}, {"D", ""}}));
}

TEST(environment_file, quotes_count_only_where_a_value_begins) {
  EXPECT_EQ(variables_of("A={\"a\": \"it's\"}\nB=--title=\"x y\"\nC=a'b c'\"d\"  \nD='b'c\"d\""),
            (environment_list{{"A", "{\"a\": \"it's\"}"},
                              {"B", "--title=\"x y\""},
                              {"C", "a'b c'\"d\""},
                              {"D", "bc\"d\""}}));
}

TEST(environment_file, backslashes_join_lines_and_quote) {
  EXPECT_EQ(variables_of("A=one\\\ntwo\nB=a\\ \nC=\"\\\"\\$\\x\"\nD='\\x'\n"),
            (environment_list{{"A", "onetwo"}, {"B", "a "}, {"C", "\"$\\x"}, {"D", "\\x"}}));
  EXPECT_EQ(variables_of("A=\\'a b\\'\nB=\\\n 'x y'\nC=a \\\n"),
            (environment_list{{"A", "'a b'"}, {"B", " 'x y'"}, {"C", "a "}}));
}

TEST(environment_file, nothing_is_expanded) {
  EXPECT_EQ(variables_of("A=$HOME ${B} `c` *"), (environment_list{{"A", "$HOME ${B} `c` *"}}));
}

TEST(environment_file, what_is_wrong_is_told_with_its_line) {
  EXPECT_EQ(fault_of("A=1\nexport B\n"), "2: there is no \"=\" in it");
  EXPECT_EQ(fault_of("export A=1\n"), "1: no variable can be called that");
  EXPECT_EQ(fault_of("A=1\n\n1B=2"), "3: no variable can be called that");
  EXPECT_EQ(fault_of("A='1\n2\nB=3"), "1: the quote ' is not closed");
  EXPECT_EQ(fault_of("A=1\nB=\"x"), "2: the quote \" is not closed");
  EXPECT_EQ(fault_of(std::string_view("A=x\0y", 5)), "1: a value holds a zero byte");
}

TEST(environment_file, names_are_those_of_variables) {
  EXPECT_TRUE(is_variable_name("_a1"));
  for (const char* const none : {"", "1a", "a-b", "a b", "\xc3\xa4"})
    EXPECT_FALSE(is_variable_name(none)) << none;
}
