#include "control/config/ini_document.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "control/config/config_bytes.h"
#include "tests/control/config/random_config.h"

using control::document_line;
using control::ini_document;
using ini_line::meaning;

namespace {

using properties = std::map<std::string, std::map<std::string, std::string>>;

properties properties_of(const ini_document& document) {
  properties found;
  for (const document_line& line : document.lines()) {
    if (line.meaning == meaning::assignment) found[line.section][line.key] = line.value;
  }
  return found;
}

void expect_as_parsed(const std::string& text) {
  const Tini_parser parsed = control::parse_config(text);
  const ini_document document(text);
  const properties found = properties_of(document);
  std::set<std::string> sections = {"",        "keelmond", "alpha", "beta", "gamma",
                                    "kmd_web", "be",       "x",     "ab",   " ab"};
  for (const auto& [section, values] : found)
    sections.insert(section);
  for (const std::string& section : sections) {
    const auto at = found.find(section);
    const auto keys = parsed.section_keys(section);
    ASSERT_EQ(keys.size(), at == found.end() ? 0 : at->second.size()) << text;
    for (const std::string& key : keys) {
      ASSERT_EQ(parsed.read_string(section, key, ""), at->second.at(key)) << text;
      const auto line = document.find(section, key);
      ASSERT_GE(line, 0);
      const document_line& found_line = document.lines()[static_cast<std::size_t>(line)];
      ASSERT_EQ(found_line.text.substr(found_line.value_at, found_line.value.size()),
                at->second.at(key));
    }
  }
}

}  // namespace

TEST(ini_document, keeps_every_byte) {
  for (const std::string& text :
       {std::string(), std::string("\n\n"), std::string("a"),
        std::string("# x\r\n[ab]\r\n k = v \r\n\n;y"), std::string("a\0b=c\n", 6)}) {
    EXPECT_EQ(ini_document(text).text(), text);
  }
}

TEST(ini_document, means_what_the_daemons_parser_makes_of_it) {
  for (unsigned seed = 0; seed < 2000; ++seed) {
    random_config random(seed);
    expect_as_parsed(random.text());
    if (HasFatalFailure()) return;
  }
}

TEST(ini_document, finds_the_assignment_that_counts) {
  const ini_document document("[ab]\nk=1\n[cd]\nk=2\n[ab]\nk=3\n# k=4\n");
  EXPECT_EQ(document.find("ab", "k"), 5);
  EXPECT_EQ(document.find("cd", "k"), 3);
  EXPECT_EQ(document.find("ab", "none"), -1);
  EXPECT_EQ(document.find_header("ab"), 0);
  EXPECT_EQ(document.find_header("ef"), -1);
  EXPECT_EQ(document.last_of("ab"), 5);
  EXPECT_EQ(document.last_of("ef"), -1);
}

TEST(ini_document, replaces_a_value_and_nothing_around_it) {
  ini_document document("[ab]\r\n  key  =  old value  \r\nother=1\r\n");
  document.replace_value(1, "x");
  EXPECT_EQ(document.text(), "[ab]\r\n  key  =  x  \r\nother=1\r\n");
  document.replace_key(1, "other2");
  EXPECT_EQ(document.text(), "[ab]\r\n  other2  =  x  \r\nother=1\r\n");
}

TEST(ini_document, inserts_lines_with_the_end_of_their_neighbours) {
  ini_document document("[ab]\r\nk=1");
  document.insert_after(1, "l=2");
  EXPECT_EQ(document.text(), "[ab]\r\nk=1\r\nl=2\r\n");
  document.insert_after(-1, "# first");
  EXPECT_EQ(document.text(), "# first\r\n[ab]\r\nk=1\r\nl=2\r\n");
  ini_document empty("");
  empty.append("[ab]");
  empty.append("k=1");
  EXPECT_EQ(empty.text(), "[ab]\nk=1\n");
  document.erase(1, 2);
  EXPECT_EQ(document.text(), "# first\r\nl=2\r\n");
}
