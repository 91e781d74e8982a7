#include "process/server_entry.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "tests/support/scratch_dir.h"

using server_entry::obstacle;
using server_entry::refusal;

namespace {

class entry_rules : public testing::Test {
 protected:
  Tini_parser config(const std::string& text) {
    scratch_.write("server.ini", text);
    return Tini_parser(scratch_.file("server.ini"));
  }

  scratch_dir scratch_;
};

}  // namespace

TEST_F(entry_rules, number_is_written_as_printf_writes_it) {
  EXPECT_EQ(server_entry::number_of("svr1"), 1);
  EXPECT_EQ(server_entry::number_of(server_entry::key_of(2147483647)), 2147483647);
  for (const char* key : {"svr", "svr0", "svr01", "svr-1", "svr+1", "svr 1", "svr1 ", "svr1x", "1",
                          "Svr1", "linux", "svr2147483648"})
    EXPECT_EQ(server_entry::number_of(key), 0) << key;
}

TEST_F(entry_rules, numbers_up_to_the_count_are_read_in_their_order) {
  const Tini_parser some = config("[keelmond]\nlinux = 11\nsvr10=a\nsvr2=b\nsvr11=c\nsvr12=d\n");
  EXPECT_EQ(server_entry::count_of(some), 11);
  EXPECT_EQ(server_entry::listed_numbers(some), (std::vector<int>{2, 10, 11}));
  EXPECT_EQ(server_entry::name_of(some, 2), "b");
  EXPECT_EQ(server_entry::name_of(some, 3), "");
  EXPECT_TRUE(server_entry::listed_numbers(config("[keelmond]\nsvr1=a\n")).empty());
}

TEST_F(entry_rules, values_are_taken_over_whole_or_not_at_all) {
  const auto refused_with = [&](std::size_t path, std::size_t state) {
    server_entry::entry read;
    EXPECT_EQ(server_entry::take_name("one", read), refusal::none);
    return server_entry::take_values(config("[one]\nexepath=" + std::string(path, 'p') +
                                            "\nstate=" + std::string(state, 's') + "\n"),
                                     read);
  };
  EXPECT_EQ(refused_with(511, 127), refusal::none);
  EXPECT_EQ(refused_with(512, 128), refusal::exepath);
  EXPECT_EQ(refused_with(511, 128), refusal::state);
  EXPECT_EQ(refused_with(0, 0), refusal::none);
}

TEST_F(entry_rules, name_is_taken_over_whole_or_not_at_all) {
  server_entry::entry read;
  EXPECT_EQ(server_entry::take_name(std::string(127, 'n'), read), refusal::none);
  EXPECT_EQ(read.name, std::string(127, 'n'));
  EXPECT_EQ(server_entry::take_name(std::string(128, 'n'), read), refusal::name);
  EXPECT_EQ(server_entry::take_name(std::string("a\0b", 3), read), refusal::name);
}

TEST_F(entry_rules, program_has_to_be_there_and_executable) {
  const std::string program = scratch_.file("program");
  EXPECT_EQ(server_entry::find_obstacle(program.c_str()), obstacle::missing);
  scratch_.write("program", "");
  EXPECT_EQ(server_entry::find_obstacle(program.c_str()), obstacle::not_executable);
  ASSERT_EQ(::chmod(program.c_str(), 0700), 0);
  EXPECT_EQ(server_entry::find_obstacle(program.c_str()), obstacle::none);
}
