#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>

#include "common/inifile/ini_parser.h"
#include "common/misc/unique_fd.h"
#include "tests/common/misc/process_state.h"
#include "tests/support/fault.h"
#include "tests/support/scratch_dir.h"

namespace {

using namespace std::string_literals;

class ini_parser_write : public testing::Test {
 protected:
  [[nodiscard]] Tini_parser load(std::string_view text) const {
    dir_.write("test.ini", text);
    return Tini_parser(dir_.file("test.ini"));
  }
  /// What the file holds now.
  [[nodiscard]] std::string file() const { return dir_.read("test.ini"); }
  /// What a new object reads from the file.
  [[nodiscard]] std::string reloaded(const std::string& section, const std::string& key) const {
    return Tini_parser(dir_.file("test.ini")).read_string(section, key, "(none)");
  }

  scratch_dir dir_;
};

TEST_F(ini_parser_write, rewrites_the_line_of_a_property) {
  Tini_parser ini = load("[svr0]\nname=x\nstate=0\nlast=y\n[svr1]\nstate=0\n");
  ini.write_value("svr0", "state", 1);
  EXPECT_EQ(file(), "[svr0]\nname=x\nstate=1\nlast=y\n[svr1]\nstate=0\n");
  EXPECT_EQ(ini.read_int("svr0", "state", -1), 1);
  EXPECT_EQ(reloaded("svr0", "state"), "1");
}

TEST_F(ini_parser_write, rewrites_every_line_of_the_property) {
  Tini_parser ini = load("k=0\n[svr0]\nk=1\nx=2\nk=1\n[svr1]\nk=1\n[svr0]\nk=3\n");
  ini.write_value("svr0", "k", "new");
  EXPECT_EQ(file(), "k=0\n[svr0]\nk=new\nx=2\nk=new\n[svr1]\nk=1\n[svr0]\nk=new\n");
}

TEST_F(ini_parser_write, rewrites_a_line_with_spaces_behind_the_equals_sign) {
  load("[svr0]\nk= 1\n").write_value("svr0", "k", 2);
  EXPECT_EQ(file(), "[svr0]\nk=2\n");
}

TEST_F(ini_parser_write,
       does_not_find_a_line_with_a_space_before_the_equals_sign_so_the_old_value_wins_again) {
  Tini_parser ini = load("[svr0]\nkey = old\n");
  ini.write_value("svr0", "key", "new");
  EXPECT_EQ(file(), "[svr0]\nkey=new\nkey = old\n");
  EXPECT_EQ(ini.read_string("svr0", "key", ""), "new");
  EXPECT_EQ(reloaded("svr0", "key"), "old");
}

TEST_F(ini_parser_write, does_not_find_a_line_without_a_value) {
  load("[svr0]\nk=\n=v\nk\n").write_value("svr0", "k", "v");
  EXPECT_EQ(file(), "[svr0]\nk=v\nk=\n=v\n");
}

TEST_F(ini_parser_write, compares_section_and_key_exactly) {
  load("[SVR0]\nkey=1\n[svr0]\nKEY=1\nkey2=1\nke=1\n").write_value("svr0", "key", 2);
  EXPECT_EQ(file(), "[SVR0]\nkey=1\n[svr0]\nkey=2\nKEY=1\nkey2=1\nke=1\n");
}

TEST_F(ini_parser_write, adds_a_missing_property_right_behind_the_first_header_of_its_section) {
  Tini_parser ini = load("[svr0]\na=1\n[svr1]\nb=2\n[svr0]\nc=3\n");
  ini.write_value("svr0", "ratio", 0.25);
  EXPECT_EQ(file(), "[svr0]\nratio=0.25\na=1\n[svr1]\nb=2\n[svr0]\nc=3\n");
  EXPECT_EQ(ini.read_double("svr0", "ratio", 0), 0.25);
}

TEST_F(ini_parser_write, adds_a_missing_property_outside_sections_at_the_top) {
  Tini_parser ini = load("a=1\n[svr0]\nk=0\n");
  ini.write_value("", "k", "v");
  EXPECT_EQ(file(), "k=v\na=1\n[svr0]\nk=0\n");
  EXPECT_EQ(ini.read_string("", "k", ""), "v");
}

TEST_F(ini_parser_write, rewrites_a_property_outside_sections) {
  load("a=1\nk=1\n[svr0]\nk=1\n").write_value("", "k", 2);
  EXPECT_EQ(file(), "a=1\nk=2\n[svr0]\nk=1\n");
}

TEST_F(ini_parser_write, keeps_a_value_without_a_header_in_memory_only) {
  Tini_parser ini = load("; note\n[svr0]\nk=1\n");
  ini.write_value("nosuch", "k", "v");
  EXPECT_EQ(file(), "; note\n[svr0]\nk=1\n");
  EXPECT_EQ(ini.read_string("nosuch", "k", ""), "v");
  EXPECT_EQ(reloaded("nosuch", "k"), "(none)");
}

TEST_F(ini_parser_write, keeps_an_empty_value_in_memory_only_when_there_is_no_line) {
  Tini_parser ini = load("; note\n[svr0]\na=1\n");
  ini.write_value("svr0", "k", "");
  ini.write_value("", "k", "");
  EXPECT_EQ(file(), "; note\n[svr0]\na=1\n");
  EXPECT_EQ(ini.read_string("svr0", "k", "default"), "");
  EXPECT_EQ(ini.read_string("", "k", "default"), "");
  EXPECT_EQ(ini.read_int("svr0", "k", 5), 0);
  EXPECT_TRUE(ini.read_bool("svr0", "k", true));
}

TEST_F(ini_parser_write, empties_a_line_that_is_there_so_the_next_load_has_no_property) {
  Tini_parser ini = load("[svr0]\nk=1\n");
  ini.write_value("svr0", "k", "");
  EXPECT_EQ(file(), "[svr0]\nk=\n");
  EXPECT_EQ(reloaded("svr0", "k"), "(none)");
}

TEST_F(ini_parser_write, keeps_an_empty_key_in_memory_only) {
  Tini_parser ini = load("; note\n[svr0]\n=1\n");
  ini.write_value("svr0", "", "v");
  EXPECT_EQ(file(), "; note\n[svr0]\n=1\n");
  EXPECT_EQ(ini.read_string("svr0", "", "default"), "v");
}

TEST_F(ini_parser_write, takes_a_literal_for_a_text_and_not_for_a_truth_value) {
  Tini_parser ini = load("[svr0]\n");
  ini.write_value("svr0", "k", "v");
  EXPECT_EQ(file(), "[svr0]\nk=v\n");
  char array[] = "array";
  ini.write_value("svr0", "k", array);
  EXPECT_EQ(file(), "[svr0]\nk=array\n");
  const char* none = nullptr;
  ini.write_value("svr0", "k", none);
  EXPECT_EQ(file(), "[svr0]\nk=\n");
}

TEST_F(ini_parser_write, writes_truth_values_as_one_and_zero) {
  Tini_parser ini = load("[svr0]\nstate=x\n");
  ini.write_value("svr0", "state", true);
  EXPECT_EQ(file(), "[svr0]\nstate=1\n");
  EXPECT_TRUE(ini.read_bool("svr0", "state", false));
  ini.write_value("svr0", "state", false);
  EXPECT_EQ(file(), "[svr0]\nstate=0\n");
  EXPECT_FALSE(ini.read_bool("svr0", "state", true));
}

TEST_F(ini_parser_write, writes_numbers_as_streams_print_them) {
  Tini_parser ini = load("[svr0]\nk=x\n");
  const auto written = [&](auto number) {
    ini.write_value("svr0", "k", number);
    return reloaded("svr0", "k");
  };
  EXPECT_EQ(written(-3), "-3");
  EXPECT_EQ(written(-2147483647 - 1), "-2147483648");
  EXPECT_EQ(written(9223372036854775807L), "9223372036854775807");
  EXPECT_EQ(written(0.5F), "0.5");
  EXPECT_EQ(written(0.1F), "0.1");
  EXPECT_EQ(written(1.0F), "1");
  EXPECT_EQ(written(0.1), "0.1");
  EXPECT_EQ(written(2.0), "2");
  EXPECT_EQ(written(1234567.0), "1.23457e+06");
  EXPECT_EQ(written(1234567.0F), "1.23457e+06");
  EXPECT_EQ(written(100000.0), "100000");
}

TEST_F(ini_parser_write, normalises_the_whole_file_with_any_change) {
  const std::string text =
      "; note\r\n\r\n  [svr0]\r\nx\n k = 1 \r\n// l=2\r\ntext\r\nm=3 \r\n#\r\n[svr1]";
  load(text).write_value("svr0", "m", 4);
  EXPECT_EQ(file(), "[svr0]\nk = 1 \ntext\nm=4\n[svr1]\n");
}

TEST_F(ini_parser_write, keeps_a_line_of_blanks_or_one_character_that_is_not_trimmed) {
  load("k=1\n   \nx\r\n\r\r\n \r\n").write_input_to_file();
  EXPECT_EQ(file(), "k=1\n   \nx\r\n\r\r\n");
}

TEST_F(ini_parser_write, keeps_the_order_and_text_of_all_other_lines) {
  const std::string text = "a=1\ntext\n[ab]\nk=\n=v\n[a]\n[]\n k \"x\n";
  load(text).write_input_to_file();
  EXPECT_EQ(file(), "a=1\ntext\n[ab]\nk=\n=v\n[a]\n[]\nk \"x\n");
}

TEST_F(ini_parser_write, finds_a_header_that_loading_does_not_open) {
  Tini_parser ini = load("[ab]\nx=1\n[a]\nk=old\n");
  EXPECT_TRUE(ini.create_property_in_section("a", "l", "1"));
  EXPECT_EQ(file(), "[ab]\nx=1\n[a]\nl=1\nk=old\n");
  EXPECT_EQ(ini.read_int("a", "l", 0), 1);
  ini.write_value("a", "k", "new");
  EXPECT_EQ(file(), "[ab]\nx=1\n[a]\nl=1\nk=new\n");
  EXPECT_EQ(reloaded("ab", "k"), "new");
}

TEST_F(ini_parser_write,
       does_not_find_under_its_section_what_stands_behind_a_one_character_header) {
  Tini_parser ini = load("[ab]\n[a]\nk=old\n");
  EXPECT_EQ(ini.read_string("ab", "k", ""), "old");
  ini.write_value("ab", "k", "new");
  EXPECT_EQ(file(), "[ab]\nk=new\n[a]\nk=old\n");
  EXPECT_EQ(reloaded("ab", "k"), "old");
}

TEST_F(ini_parser_write, takes_a_written_line_that_ends_like_a_header_for_one) {
  Tini_parser ini = load("[svr0]\nk=1\nl=1\n");
  ini.write_value("svr0", "k", "x]\r");
  ini.write_value("svr0", "l", "2");
  EXPECT_EQ(file(), "[svr0]\nl=2\nk=x]\r\nl=1\n");
}

TEST_F(ini_parser_write, writes_texts_as_they_are) {
  Tini_parser ini = load("[svr0]\n");
  ini.write_value("svr0", "k", " v=\0\xff;#"s + "\nl=2\n");
  EXPECT_EQ(file(), "[svr0]\nk= v=\0\xff;#\nl=2\n\n"s);
  EXPECT_EQ(ini.read_string("svr0", "l", "(none)"), "(none)");
  EXPECT_EQ(reloaded("svr0", "l"), "2");
}

TEST_F(ini_parser_write, adds_a_header_behind_an_empty_line_at_the_end) {
  Tini_parser ini = load("[svr0]\nx=1");
  EXPECT_TRUE(ini.create_section("svr9"));
  EXPECT_EQ(file(), "[svr0]\nx=1\n\n[svr9]\n");
  EXPECT_TRUE(ini.create_section("svr9"));
  EXPECT_EQ(file(), "[svr0]\nx=1\n\n[svr9]\n\n[svr9]\n");
  EXPECT_FALSE(ini.create_section(""));
  EXPECT_EQ(file(), "[svr0]\nx=1\n\n[svr9]\n\n[svr9]\n");
}

TEST_F(ini_parser_write, finds_a_header_it_has_added_only_after_a_load) {
  Tini_parser ini = load("");
  ini.create_section("svr9");
  EXPECT_FALSE(ini.create_property("svr9", "k", "v"));
  ini.write_value("svr9", "k", "v");
  EXPECT_EQ(file(), "\n[svr9]\n");
  Tini_parser again(dir_.file("test.ini"));
  EXPECT_TRUE(again.create_property("svr9", "k", "v"));
  EXPECT_EQ(file(), "[svr9]\nk=v\n");
}

TEST_F(ini_parser_write, adds_no_property_for_a_header_alone) {
  Tini_parser ini = load("a=1\n");
  ini.create_section("svr9");
  EXPECT_FALSE(ini.ensure_property_exists("svr9", "k"));
}

TEST_F(ini_parser_write, adds_a_property_even_when_there_is_one_with_that_key) {
  Tini_parser ini = load("[svr0]\nk=1\n[svr0]\n");
  EXPECT_TRUE(ini.create_property("svr0", "k", "2"));
  EXPECT_EQ(file(), "[svr0]\nk=2\nk=1\n[svr0]\n");
  EXPECT_EQ(ini.read_int("svr0", "k", 0), 2);
  EXPECT_EQ(reloaded("svr0", "k"), "1");
}

TEST_F(ini_parser_write, adds_a_property_outside_sections_as_the_first_line) {
  Tini_parser ini = load("[svr0]\nk=1\n");
  EXPECT_TRUE(ini.create_property("", "k", "2"));
  EXPECT_TRUE(ini.create_property_no_section("l", "3"));
  EXPECT_EQ(file(), "l=3\nk=2\n[svr0]\nk=1\n");
  EXPECT_EQ(ini.read_int("", "k", 0), 2);
  EXPECT_EQ(ini.read_int("", "l", 0), 3);
}

TEST_F(ini_parser_write, refuses_a_property_without_a_key_or_a_value) {
  Tini_parser ini = load("; note\n[svr0]\nk=1\n");
  EXPECT_FALSE(ini.create_property("svr0", "", "v"));
  EXPECT_FALSE(ini.create_property("svr0", "k", ""));
  EXPECT_FALSE(ini.create_property("", "k", ""));
  EXPECT_EQ(file(), "; note\n[svr0]\nk=1\n");
  EXPECT_EQ(ini.read_int("svr0", "k", 0), 1);
  EXPECT_FALSE(ini.ensure_property_exists("svr0", ""));
}

TEST_F(ini_parser_write, refuses_a_property_of_a_section_without_a_header) {
  Tini_parser ini = load("; note\n[svr0]\nk=1\n");
  EXPECT_FALSE(ini.create_property("nosuch", "k", "v"));
  EXPECT_FALSE(ini.create_property_in_section("", "k", "v"));
  EXPECT_EQ(file(), "; note\n[svr0]\nk=1\n");
  EXPECT_FALSE(ini.ensure_property_exists("nosuch", "k"));
}

TEST_F(ini_parser_write, looks_at_no_text_when_the_kind_of_place_is_given) {
  Tini_parser ini = load("[svr0]\n[]\n");
  EXPECT_TRUE(ini.create_property_in_section("svr0", "", ""));
  EXPECT_TRUE(ini.create_property_in_section("", "k", "v"));
  EXPECT_TRUE(ini.create_property_no_section("", ""));
  EXPECT_EQ(file(), "=\n[svr0]\n=\n[]\nk=v\n");
}

TEST_F(ini_parser_write, creates_a_missing_file) {
  Tini_parser ini(dir_.file("test.ini"));
  ini.write_value("", "k", "v");
  EXPECT_EQ(file(), "k=v\n");
}

TEST_F(ini_parser_write, creates_a_file_with_the_mode_of_any_new_file) {
  const changed_umask mask{022};
  Tini_parser(dir_.file("test.ini")).write_value("", "k", "v");
  EXPECT_EQ(mode_of(dir_.file("test.ini")), 0644U);
}

TEST_F(ini_parser_write, overwrites_what_others_changed_since_the_load) {
  Tini_parser ini = load("[svr0]\nk=1\n");
  dir_.write("test.ini", "[svr0]\nk=1\nmuch=longer than what was there before\n");
  ini.write_value("svr0", "k", 2);
  EXPECT_EQ(file(), "[svr0]\nk=2\n");
}

TEST_F(ini_parser_write, writes_files_larger_than_any_buffer) {
  std::string text = "[svr0]\nk=1\n";
  for (int i = 0; i < 30'000; ++i)
    text += "key" + std::to_string(i) + "=value\n";
  text += "long=" + std::string(500'000, 'v') + "\nend=1\n";
  load(text).write_value("svr0", "k", 2);
  EXPECT_EQ(file(), text.replace(9, 1, "2"));
}

TEST_F(ini_parser_write, keeps_the_value_when_the_file_cannot_be_opened) {
  Tini_parser ini = load("[svr0]\nk=1\n");
  std::filesystem::remove(dir_.file("test.ini"));
  std::filesystem::create_directory(dir_.file("test.ini"));
  ini.write_value("svr0", "k", 2);
  EXPECT_TRUE(ini.create_property("svr0", "l", "3"));
  EXPECT_TRUE(ini.create_section("svr1"));
  EXPECT_EQ(ini.read_int("svr0", "k", 0), 2);
  std::filesystem::remove(dir_.file("test.ini"));
  ini.write_input_to_file();
  EXPECT_EQ(file(), "[svr0]\nl=3\nk=2\n\n[svr1]\n");
}

TEST_F(ini_parser_write, keeps_the_value_when_the_file_cannot_be_written) {
  Tini_parser ini("/dev/full");
  ini.write_value("", "k", "v");
  ini.write_value("", "long", std::string(100'000, 'v'));
  ini.write_value("", "last", "v");
  EXPECT_EQ(ini.read_string("", "k", ""), "v");
}

TEST_F(ini_parser_write, does_not_wait_for_the_reader_of_a_pipe) {
  ASSERT_EQ(::mkfifo(dir_.file("pipe").c_str(), 0600), 0);
  Tini_parser ini(dir_.file("pipe"));
  ini.write_value("", "k", std::string(300'000, 'v'));
  const unique_fd reader(::open(dir_.file("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  ini.write_value("", "k", std::string(300'000, 'v'));
  EXPECT_EQ(ini.read_string("", "k", "").size(), 300'000U);
}

TEST_F(ini_parser_write, goes_on_writing_after_a_signal_and_after_a_write_of_less) {
  Tini_parser ini = load("[svr0]\nk=1\n");
  const no_faults_afterwards clean_up;
  int calls = 0;
  faults.write = [&calls](int fd, const void* text, std::size_t size) -> ssize_t {
    if (++calls % 2 == 0) return real::write(fd, text, std::min<std::size_t>(size, 4));
    errno = EINTR;
    return -1;
  };
  ini.write_value("svr0", "k", "value");
  EXPECT_EQ(file(), "[svr0]\nk=value\n");
}

TEST_F(ini_parser_write, gives_up_a_file_that_takes_nothing) {
  Tini_parser ini = load("[svr0]\nk=1\n");
  const no_faults_afterwards clean_up;
  int calls = 0;
  faults.write = [&calls](int, const void*, std::size_t) -> ssize_t {
    errno = ENOSPC;
    return ++calls < 100 ? 0 : -1;
  };
  ini.write_value("svr0", "k", 2);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(ini.read_int("svr0", "k", 0), 2);
}

TEST_F(ini_parser_write, leaves_no_descriptor_open) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  Tini_parser ini = load("[ab]\nk=v\n");
  const auto before = descriptors();
  ini.write_value("ab", "k", "w");
  EXPECT_EQ(descriptors(), before);
}

}  // namespace
