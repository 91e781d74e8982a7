// Random files and random sequences of writes, compared with the model.

#include <gtest/gtest.h>

#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "common/inifile/ini_parser.h"
#include "tests/common/inifile/ini_model.h"
#include "tests/support/scratch_dir.h"

namespace {

using namespace std::string_literals;

/// Texts drawn from a few that meet each other often and the rules' edges often enough.
class random_texts final {
 public:
  explicit random_texts(unsigned seed) : engine_(seed) {}

  unsigned below(unsigned limit) { return std::uniform_int_distribution(0U, limit - 1)(engine_); }

  std::string section() {
    return pick({"", "ab", "cd", "a", "x", "none", " ab", "k=v]\r", "]\r", "b]c"});
  }
  std::string key() { return pick({"k", "key", "k ", " key", "", "k=", ";c", "[ab", "\r", "\tk"}); }
  std::string value() {
    return pick({"v", "1", "", " ", "v v", "v ", " vv ", "\r", "x]\r", "]\r", "=", "a\nkey=b",
                 "a\n[cd]", "\0"s, "]"});
  }

  std::string file() {
    std::string text;
    for (unsigned lines = below(15); lines > 0; --lines) {
      text += line() + pick({"\n", "\n", "\r\n", " \r\n", "\r\r\n"});
    }
    return below(2) == 0 ? text : text + line();
  }

 private:
  std::string pick(const std::vector<std::string>& choices) {
    return choices[below(static_cast<unsigned>(choices.size()))];
  }

  std::string line() {
    switch (below(4)) {
      case 0:
        return pick({"[ab]", "[cd]", "[a]", "[]", "[[x]]", "[[[]", "  [ab]", "[ab] ", "[b]c]"});
      case 1:
        return key() + pick({"=", " = ", "= "}) + value();
      case 2:
        return pick({";", "#", "", " ", "=", "k=", "=v", "text", "[", "k", "// k=v"});
      default:
        return noise();
    }
  }

  std::string noise() {
    std::string text;
    for (unsigned parts = below(8); parts > 0; --parts) {
      text += pick({" ", "\r", "[", "]", "=", "k", "ab", ";", "\t", "\0"s, "\xff"});
    }
    return text;
  }

  std::mt19937 engine_;
};

/// Compares what reads find with what they should, through each property and its neighbours.
void expect_reads(const Tini_parser& ini, const ini_model& model) {
  for (const std::string& name : {""s, "ab"s, "cd"s, "a"s, "x"s, "none"s}) {
    if (model.sections().contains(name)) continue;
    EXPECT_TRUE(ini.section_keys(name).empty()) << name;
  }
  for (const auto& [section, properties] : model.sections()) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : properties) {
      keys.push_back(key);
      EXPECT_EQ(ini.read_string(section, key, "(none)"), value) << section << "/" << key;
    }
    EXPECT_EQ(ini.section_keys(section), keys) << section;
    EXPECT_FALSE(ini.ensure_property_exists(section, "absent"));
  }
}

/// Does the same random change to both and compares the answers.
void change(random_texts& random, Tini_parser& ini, ini_model& model) {
  const std::string section = random.section();
  const std::string key = random.key();
  const std::string value = random.value();
  SCOPED_TRACE(testing::PrintToString(section) + " " + testing::PrintToString(key) + " " +
               testing::PrintToString(value));
  switch (random.below(8)) {
    case 0:
      EXPECT_EQ(ini.create_section(section), model.create_section(section));
      break;
    case 1:
      EXPECT_EQ(ini.create_property(section, key, value),
                model.create_property(section, key, value));
      break;
    case 2:
      EXPECT_EQ(ini.create_property_in_section(section, key, value),
                model.create_property_in_section(section, key, value));
      break;
    case 3:
      EXPECT_EQ(ini.create_property_no_section(key, value),
                model.create_property_no_section(key, value));
      break;
    case 4:
      ini.write_input_to_file();
      model.save();
      break;
    default:
      ini.write_value(section, key, value);
      model.write_value(section, key, value);
      break;
  }
}

class ini_parser_property : public testing::TestWithParam<unsigned> {};

TEST_P(ini_parser_property, file_and_reads_are_what_the_model_says) {
  for (unsigned seed = GetParam() * 30; seed < (GetParam() + 1) * 30; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const scratch_dir dir;
    const std::string path = dir.file("test.ini");
    random_texts random(seed);
    ini_model model(random.file());
    SCOPED_TRACE(testing::PrintToString(model.file()));
    dir.write("test.ini", model.file());
    Tini_parser ini(path);
    expect_reads(ini, model);
    for (unsigned changes = random.below(20); changes > 0; --changes) {
      change(random, ini, model);
      ASSERT_EQ(dir.read("test.ini"), model.file());
      expect_reads(ini, model);
      expect_reads(Tini_parser(path), ini_model(model.file()));
      if (HasFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ini_parser_property, testing::Range(0U, 10U));

}  // namespace
