#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/inifile/ini_parser.h"
#include "common/misc/unique_fd.h"
#include "tests/support/fault.h"
#include "tests/support/scratch_dir.h"

namespace {

using namespace std::string_literals;
using names = std::vector<std::string>;

class ini_parser_load : public testing::Test {
 protected:
  [[nodiscard]] Tini_parser load(std::string_view text) const {
    dir_.write("test.ini", text);
    return Tini_parser(dir_.file("test.ini"));
  }
  /// The value of a property, "(none)" when there is none.
  static std::string value(const Tini_parser& ini, const std::string& section,
                           const std::string& key) {
    return ini.read_string(section, key, "(none)");
  }

  scratch_dir dir_;
};

TEST_F(ini_parser_load, stores_properties_under_their_section) {
  const Tini_parser ini = load("[svr0]\nexepath = /bin/x\nstate=run\n[svr1]\nstate=stop\n");
  EXPECT_EQ(value(ini, "svr0", "exepath"), "/bin/x");
  EXPECT_EQ(value(ini, "svr0", "state"), "run");
  EXPECT_EQ(value(ini, "svr1", "state"), "stop");
  EXPECT_EQ(value(ini, "svr1", "exepath"), "(none)");
}

TEST_F(ini_parser_load, stores_properties_before_the_first_header_under_the_empty_name) {
  const Tini_parser ini = load("a=1\n[svr0]\nb=2\n");
  EXPECT_EQ(value(ini, "", "a"), "1");
  EXPECT_EQ(value(ini, "", "b"), "(none)");
}

TEST_F(ini_parser_load, finds_nothing_in_an_empty_or_blank_file) {
  for (const char* text : {"", "\n", "\n\n\n", " \r\n\r\n \n"}) {
    EXPECT_EQ(load(text).section_keys(""), names{}) << testing::PrintToString(text);
  }
}

TEST_F(ini_parser_load, reads_a_last_line_without_a_newline) {
  EXPECT_EQ(value(load("[svr0]\nk=v"), "svr0", "k"), "v");
  EXPECT_EQ(value(load("k=v"), "", "k"), "v");
}

TEST_F(ini_parser_load, accepts_lines_that_end_in_a_carriage_return) {
  const Tini_parser ini = load("  [svr0]\r\n key=value\r\n");
  EXPECT_EQ(value(ini, "svr0", "key"), "value");
}

TEST_F(ini_parser_load,
       trims_spaces_before_carriage_returns_so_a_header_with_spaces_behind_it_is_none) {
  const Tini_parser ini = load("[ab]\r\n[svr0]  \r\nk=v\r\n");
  EXPECT_EQ(value(ini, "svr0", "k"), "(none)");
  EXPECT_EQ(value(ini, "ab", "k"), "v");
}

TEST_F(ini_parser_load, keeps_a_space_before_the_carriage_return_only_after_a_one_character_value) {
  const Tini_parser ini = load("one=v \r\ntwo=vv \r\n");
  EXPECT_EQ(value(ini, "", "one"), "v ");
  EXPECT_EQ(value(ini, "", "two"), "vv");
}

TEST_F(ini_parser_load, does_not_open_a_section_with_a_one_character_name) {
  const Tini_parser ini = load("[ab]\nk=1\n[a]\nl=2\n[]\nm=3\n");
  EXPECT_EQ(ini.section_keys("ab"), (names{"k", "l", "m"}));
  EXPECT_EQ(ini.section_keys("a"), names{});
  EXPECT_EQ(ini.section_keys(""), names{});
}

TEST_F(ini_parser_load, removes_every_outer_bracket_from_a_section_name) {
  const Tini_parser ini = load("[[x]]\nk=1\n[ x ]\nk=2\n[a]b]\nk=3\n");
  EXPECT_EQ(value(ini, "x", "k"), "1");
  EXPECT_EQ(value(ini, " x ", "k"), "2");
  EXPECT_EQ(value(ini, "a]b", "k"), "3");
}

TEST_F(ini_parser_load, goes_back_to_the_empty_name_after_a_header_of_brackets_only) {
  const Tini_parser ini = load("[ab]\nk=1\n[[[]\nl=2\n");
  EXPECT_EQ(value(ini, "", "l"), "2");
}

TEST_F(ini_parser_load, takes_a_header_with_an_equals_sign_for_no_property) {
  const Tini_parser ini = load("[ab]\nk=1\n[x=y]\nl=2\n");
  EXPECT_EQ(ini.section_keys("ab"), names{"k"});
  EXPECT_EQ(ini.section_keys("x=y"), names{"l"});
}

TEST_F(ini_parser_load, takes_an_unclosed_header_with_an_equals_sign_for_a_property) {
  EXPECT_EQ(value(load("[ab=c\n"), "", "[ab"), "c");
}

TEST_F(ini_parser_load, has_no_property_without_a_key_or_a_value) {
  const Tini_parser ini = load("[ab]\nk=\n=v\ntext\nl==v\n");
  EXPECT_EQ(ini.section_keys("ab"), names{"l"});
  EXPECT_EQ(value(ini, "ab", "l"), "=v");
}

TEST_F(ini_parser_load, has_no_section_for_a_header_without_properties) {
  EXPECT_FALSE(load("[ab]\n[cd]\nk=1\n").ensure_property_exists("ab", "k"));
}

TEST_F(ini_parser_load, drops_comments) {
  const Tini_parser ini = load("; a=1\n# b=1\n// c=1\n% d=1\n@ e=1\n  ;f=1\n[ab]\n;g=1\nh=1\n");
  EXPECT_EQ(ini.section_keys(""), names{});
  EXPECT_EQ(ini.section_keys("ab"), names{"h"});
}

TEST_F(ini_parser_load, knows_no_comment_behind_a_value) {
  EXPECT_EQ(value(load("k=v ;x\n"), "", "k"), "v ;x");
}

TEST_F(ini_parser_load, takes_a_tab_before_the_key_for_part_of_it) {
  const Tini_parser ini = load("\tk=1\n");
  EXPECT_EQ(ini.section_keys(""), names{"\tk"});
}

TEST_F(ini_parser_load, keeps_the_blanks_of_a_one_character_key) {
  const Tini_parser ini = load("a = 1\nab = 2\n");
  EXPECT_EQ(ini.section_keys(""), (names{"a ", "ab"}));
  EXPECT_EQ(value(ini, "", "a "), "1");
  EXPECT_EQ(value(ini, "", "ab"), "2");
}

TEST_F(ini_parser_load, compares_names_byte_by_byte) {
  const Tini_parser ini = load("K=1\nk=2\n\xc3\xa4=3\n");
  EXPECT_EQ(ini.section_keys(""), (names{"K", "k", "\xc3\xa4"}));
}

TEST_F(ini_parser_load, lets_the_last_of_repeated_keys_win) {
  const Tini_parser ini = load("[ab]\nk=1\nl=1\n[cd]\nk=5\n[ab]\nk=2\nm=3\n");
  EXPECT_EQ(ini.section_keys("ab"), (names{"k", "l", "m"}));
  EXPECT_EQ(value(ini, "ab", "k"), "2");
}

TEST_F(ini_parser_load, keeps_any_byte_of_a_value) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    if (byte != '\n') bytes.push_back(static_cast<char>(byte));
  }
  EXPECT_EQ(value(load("k=x" + bytes + "x"), "", "k"), "x" + bytes + "x");
}

TEST_F(ini_parser_load, reads_lines_longer_than_any_buffer) {
  const std::string key(70'000, 'k');
  const std::string text(300'000, 'v');
  const Tini_parser ini = load("[" + key + "]\n" + key + "=" + text + "\nab=1\n");
  EXPECT_EQ(value(ini, key, key), text);
  EXPECT_EQ(value(ini, key, "ab"), "1");
}

TEST_F(ini_parser_load, reads_many_sections) {
  std::string text;
  for (int i = 0; i < 100'000; ++i) {
    text += "[section" + std::to_string(i) + "]\nkey=" + std::to_string(i) + "\n";
  }
  const Tini_parser ini = load(text);
  EXPECT_EQ(ini.read_int("section0", "key", -1), 0);
  EXPECT_EQ(ini.read_int("section99999", "key", -1), 99999);
}

TEST_F(ini_parser_load, leaves_the_file_as_it_is) {
  const std::string text = "; note\r\n[ab]\r\nx\r\n\r\nk = v";
  { const Tini_parser ini = load(text); }
  EXPECT_EQ(dir_.read("test.ini"), text);
}

TEST_F(ini_parser_load, never_reads_the_file_again) {
  const Tini_parser ini = load("k=1\n");
  dir_.write("test.ini", "k=2\n");
  EXPECT_EQ(value(ini, "", "k"), "1");
}

TEST_F(ini_parser_load, copies_are_independent_of_the_original) {
  Tini_parser first = load("k=1\n");
  const Tini_parser copy = first;
  first = load("k=2\n");
  EXPECT_EQ(value(copy, "", "k"), "1");
  const Tini_parser moved = std::move(first);
  EXPECT_EQ(value(moved, "", "k"), "2");
}

TEST_F(ini_parser_load, counts_a_missing_file_as_empty_and_does_not_create_it) {
  const Tini_parser ini(dir_.file("missing.ini"));
  EXPECT_FALSE(ini.ensure_property_exists("svr0", "k"));
  EXPECT_FALSE(dir_.has("missing.ini"));
  EXPECT_FALSE(Tini_parser("").ensure_property_exists("svr0", "k"));
}

TEST_F(ini_parser_load, counts_what_is_no_regular_file_as_empty_without_waiting_for_it) {
  ASSERT_EQ(::mkfifo(dir_.file("pipe").c_str(), 0600), 0);
  const unique_fd pipe(::open(dir_.file("pipe").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  ASSERT_EQ(::write(pipe.get(), "[ab]\nk=v\n", 9), 9);
  for (const std::string& path : {dir_.path().string(), dir_.file("pipe"), "/dev/zero"s}) {
    EXPECT_FALSE(Tini_parser(path).ensure_property_exists("ab", "k")) << path;
  }
}

TEST_F(ini_parser_load, counts_a_file_that_fails_to_be_read_as_empty) {
  // Our own memory has nothing at address 0.
  EXPECT_EQ(Tini_parser("/proc/self/mem").section_keys(""), names{});
}

TEST_F(ini_parser_load, goes_on_reading_after_a_signal) {
  const no_faults_afterwards clean_up;
  int calls = 0;
  faults.read = [&calls](int fd, void* out, std::size_t) -> ssize_t {
    if (++calls % 2 == 0) return real::read(fd, out, 3);
    errno = EINTR;
    return -1;
  };
  EXPECT_EQ(value(load("key=value\nab=1\n"), "", "key"), "value");
  EXPECT_GT(calls, 2);
}

TEST_F(ini_parser_load, takes_no_line_that_a_failing_read_cuts_short) {
  const no_faults_afterwards clean_up;
  bool first = true;
  faults.read = [&first](int, void* out, std::size_t) -> ssize_t {
    errno = EIO;
    if (!std::exchange(first, false)) return -1;
    std::memcpy(out, "whole=1\ncut=1", 13);
    return 13;
  };
  EXPECT_EQ(load("").section_keys(""), names{"whole"});
}

/// Is an ordinary user for as long as it lives: root may open any file for writing.
class ordinary_user final {
 public:
  ordinary_user() : before_(::geteuid()) {
    if (before_ == 0) changed_ = ::seteuid(65534) == 0;
  }
  ordinary_user(const ordinary_user&) = delete;
  ordinary_user& operator=(const ordinary_user&) = delete;
  ~ordinary_user() {
    if (changed_ && ::seteuid(before_) != 0) ADD_FAILURE() << "still an ordinary user";
  }

 private:
  uid_t before_;
  bool changed_ = false;
};

TEST_F(ini_parser_load, counts_a_file_that_cannot_be_opened_for_writing_as_empty) {
  dir_.write("test.ini", "[ab]\nk=v\n");
  const std::string path = dir_.file("test.ini");
  ASSERT_EQ(::chmod(dir_.path().c_str(), 0755), 0);
  const auto found_with_mode = [&path](mode_t mode) {
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    const ordinary_user user;
    if (::geteuid() == 0) return mode == 0666;  // this machine does not let root step down
    return Tini_parser(path).ensure_property_exists("ab", "k");
  };
  EXPECT_TRUE(found_with_mode(0666));
  EXPECT_FALSE(found_with_mode(0444));
  EXPECT_FALSE(found_with_mode(0222));
}

TEST_F(ini_parser_load, leaves_no_descriptor_open) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = descriptors();
  const Tini_parser ini = load("[ab]\nk=v\n");
  const Tini_parser directory(dir_.path().string());
  EXPECT_EQ(descriptors(), before);
}

}  // namespace
