#include "common/version/fun_version.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/captured_output.h"

namespace {

struct answer {
  int result = -1;
  std::string output;
};

answer ask(const std::vector<std::string>& arguments, const char* title = "A Title") {
  std::vector<std::string> texts = arguments;
  std::vector<char*> pointers;
  for (std::string& text : texts)
    pointers.push_back(text.data());
  pointers.push_back(nullptr);
  const captured_output output;
  const Tfun_version version(title);
  const int result = version.AnalyzeParam(static_cast<int>(arguments.size()), pointers.data());
  return {result, output.text()};
}

std::string banner(const std::string& title) {
  return "\n" + title + "\nVersion: " + KEELMOND_VERSION +
         "\n"
         "https://keelmond.example/support\n"
         "Questions and suggestions are welcome at support@keelmond.example\n"
         "\n";
}

class version_word : public testing::TestWithParam<const char*> {};

TEST_P(version_word, as_the_first_argument_prints_the_banner) {
  const answer alone = ask({"keelmond", GetParam()}, "Tessaly Process Monitor");
  EXPECT_EQ(alone.result, 1);
  EXPECT_EQ(alone.output, banner("Tessaly Process Monitor"));
}

TEST_P(version_word, followed_by_anything_prints_the_banner) {
  const answer first = ask({"keelmond", GetParam(), "more", "--help"});
  EXPECT_EQ(first.result, 1);
  EXPECT_EQ(first.output, banner("A Title"));
}

TEST_P(version_word, as_a_later_argument_is_not_looked_at) {
  const answer later = ask({"keelmond", "server.ini", GetParam()});
  EXPECT_EQ(later.result, 0);
  EXPECT_EQ(later.output, "");
}

TEST_P(version_word, is_compared_whole_and_in_its_case) {
  const std::string word = GetParam();
  std::string upper = word;
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
  for (const std::string& other : {upper, word + "x", word + " ", " " + word, "---" + word}) {
    const answer none = ask({"keelmond", other});
    EXPECT_EQ(none.result, 0) << other;
    EXPECT_EQ(none.output, "") << other;
  }
}

INSTANTIATE_TEST_SUITE_P(all, version_word,
                         testing::Values("v", "-v", "--v", "ver", "-ver", "--ver", "version",
                                         "-version", "--version"),
                         [](const auto& instance) {
                           std::string name = instance.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

TEST(fun_version, other_words_are_ignored) {
  for (const char* other : {"", "-", "--", "-V", "--Version", "VERSION", "-vv", "vers", "-vers",
                            "ve", "versio", "help", "--help", "/v"}) {
    const answer none = ask({"keelmond", other});
    EXPECT_EQ(none.result, 0) << other;
    EXPECT_EQ(none.output, "") << other;
  }
}

TEST(fun_version, no_argument_is_no_request) {
  EXPECT_EQ(ask({"keelmond"}).result, 0);
  EXPECT_EQ(ask({"keelmond"}).output, "");
  EXPECT_EQ(ask({}).result, 0);
}

TEST(fun_version, the_program_s_own_name_is_no_request) {
  EXPECT_EQ(ask({"--version"}).result, 0);
}

TEST(fun_version, a_count_that_does_not_fit_its_arguments_is_no_request) {
  const captured_output output;
  const Tfun_version version("A Title");
  char name[] = "keelmond";
  char* only_name[] = {name, nullptr};
  EXPECT_EQ(version.AnalyzeParam(2, nullptr), 0);
  EXPECT_EQ(version.AnalyzeParam(2, only_name), 0);
  EXPECT_EQ(version.AnalyzeParam(-1, only_name), 0);
  EXPECT_EQ(output.text(), "");
}

TEST(fun_version, a_title_of_63_bytes_is_printed_whole_and_a_longer_one_is_cut) {
  const std::string longest(63, 't');
  EXPECT_EQ(ask({"keelmond", "v"}, longest.c_str()).output, banner(longest));
  EXPECT_EQ(ask({"keelmond", "v"}, (longest + "u").c_str()).output, banner(longest));
  EXPECT_EQ(ask({"keelmond", "v"}, std::string(5000, 't').c_str()).output, banner(longest));
}

TEST(fun_version, a_null_title_counts_as_empty) {
  EXPECT_EQ(ask({"keelmond", "v"}, nullptr).output, banner(""));
}

TEST(fun_version, a_percent_in_the_title_is_only_text) {
  EXPECT_EQ(ask({"keelmond", "v"}, "100%s %n").output, banner("100%s %n"));
}

TEST(fun_version, can_be_asked_again) {
  const captured_output output;
  const Tfun_version version("T");
  char name[] = "keelmond";
  char word[] = "-v";
  char* arguments[] = {name, word, nullptr};
  EXPECT_EQ(version.AnalyzeParam(2, arguments), 1);
  EXPECT_EQ(version.AnalyzeParam(2, arguments), 1);
  EXPECT_EQ(output.text(), banner("T") + banner("T"));
}

}  // namespace
