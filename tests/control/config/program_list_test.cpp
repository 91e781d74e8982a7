#include "control/config/program_list.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "control/config/config_bytes.h"
#include "tests/support/scratch_dir.h"

using control::listed_program;
using control::obstacle;
using control::refusal;

namespace {

std::vector<listed_program> programs_of(const std::string& text) {
  return control::read_programs(control::parse_config(text), "/srv");
}

std::vector<std::string> names_of(const std::vector<listed_program>& programs) {
  std::vector<std::string> names;
  for (const listed_program& program : programs)
    names.push_back(program.name);
  return names;
}

}  // namespace

TEST(program_list, reads_entries_in_the_order_of_their_numbers_over_gaps) {
  const auto programs = programs_of(
      "[keelmond]\nlinux=11\nsvr10=ten\nsvr2=two\nsvr11=last\nsvr12=beyond\nsvr02=no\nsvr0=no\n"
      "svrx=no\nsvr=no\n[two]\nexepath=/bin/two\nstate=run\n");
  EXPECT_EQ(names_of(programs), (std::vector<std::string>{"two", "ten", "last"}));
  EXPECT_EQ(programs[0].number, 2);
  EXPECT_EQ(programs[0].exepath, "/bin/two");
  EXPECT_TRUE(programs[0].exepath_given);
  EXPECT_TRUE(programs[0].wants_run());
  EXPECT_EQ(programs[1].exepath, "/srv/ten");
  EXPECT_FALSE(programs[1].exepath_given);
  EXPECT_EQ(programs[1].state, "");
}

TEST(program_list, is_empty_without_a_count) {
  EXPECT_TRUE(programs_of("").empty());
  EXPECT_TRUE(programs_of("[keelmond]\nsvr1=one\n").empty());
  EXPECT_TRUE(programs_of("[keelmond]\nlinux=-1\nsvr1=one\n").empty());
  EXPECT_TRUE(programs_of("[keelmond]\nlinux=many\nsvr1=one\n").empty());
}

TEST(program_list, refuses_values_that_are_too_long_by_one) {
  const auto refused_with = [](std::size_t name, std::size_t path, std::size_t state) {
    const std::string program(name, 'n');
    const auto programs = programs_of("[keelmond]\nlinux=1\nsvr1=" + program + "\n[" + program +
                                      "]\nexepath=" + std::string(path, 'p') +
                                      "\nstate=" + std::string(state, 's') + "\n");
    return programs.at(0).refused;
  };
  EXPECT_EQ(refused_with(127, 511, 127), refusal::none);
  EXPECT_EQ(refused_with(128, 5, 5), refusal::name);
  EXPECT_EQ(refused_with(5, 512, 5), refusal::exepath);
  EXPECT_EQ(refused_with(5, 5, 128), refusal::state);
}

TEST(program_list, refuses_values_with_a_nul_byte) {
  std::string text = "[keelmond]\nlinux=1\nsvr1=one\n[one]\nexepath=/bin/x_y\n";
  text[text.find('_')] = '\0';
  EXPECT_EQ(programs_of(text).at(0).refused, refusal::exepath);
}

TEST(program_list, refuses_a_directory_that_is_too_long_for_the_name_in_it) {
  const auto refused_in = [](std::size_t length) {
    const Tini_parser config = control::parse_config("[keelmond]\nlinux=1\nsvr1=one\n");
    return control::read_programs(config, "/" + std::string(length, 'd')).at(0).refused;
  };
  EXPECT_EQ(refused_in(506), refusal::none);
  EXPECT_EQ(refused_in(507), refusal::exepath);
}

TEST(program_list, shows_values_whole_that_are_refused) {
  const std::string path(512, 'p');
  const std::string state(128, 's');
  const auto program = programs_of("[keelmond]\nlinux=1\nsvr1=one\n[one]\nexepath=" + path +
                                   "\nstate=" + state + "\n")
                           .at(0);
  EXPECT_EQ(program.refused, refusal::exepath);
  EXPECT_EQ(program.exepath, path);
  EXPECT_EQ(program.state, state);
}

TEST(program_list, lists_a_repeated_name_once) {
  const auto programs =
      control::merge_repeated(programs_of("[keelmond]\nlinux=3\nsvr1=one\nsvr2=two\nsvr3=one\n"));
  EXPECT_EQ(names_of(programs), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(programs[0].number, 1);
}

TEST(program_list, knows_what_keeps_a_program_from_being_started) {
  const scratch_dir place;
  place.write("program", "");
  listed_program program;
  program.exepath = place.file("none");
  EXPECT_EQ(control::find_obstacle(program), obstacle::missing);
  program.exepath = place.file("program");
  EXPECT_EQ(control::find_obstacle(program), obstacle::not_executable);
  ASSERT_EQ(::chmod(program.exepath.c_str(), 0700), 0);
  EXPECT_EQ(control::find_obstacle(program), obstacle::none);
}

TEST(config_bytes, reads_a_file_that_may_not_be_written) {
  const scratch_dir place;
  place.write("server.ini", "[keelmond]\nlinux=1\nsvr1=one\n");
  ASSERT_EQ(::chmod(place.file("server.ini").c_str(), 0400), 0);
  const auto config = control::read_config(place.file("server.ini"));
  ASSERT_TRUE(config);
  EXPECT_EQ(config->id(), *control::identify_file(place.file("server.ini")));
  EXPECT_EQ(control::read_programs(control::parse_config(config->text), "/").size(), 1U);
}

TEST(config_bytes, reads_nothing_but_regular_files) {
  const scratch_dir place;
  ASSERT_EQ(::mkfifo(place.file("pipe").c_str(), 0600), 0);
  EXPECT_FALSE(control::read_config(place.file("pipe")));
  EXPECT_FALSE(control::read_config(place.path()));
  errno = 0;
  EXPECT_FALSE(control::read_config(place.file("none")));
  EXPECT_EQ(errno, ENOENT);
}
