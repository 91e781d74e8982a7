#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/misc/fun_misc.h"
#include "tests/common/misc/process_state.h"
#include "tests/support/scratch_dir.h"

namespace {

namespace fs = std::filesystem;

class fun_misc_files : public scratch_test {};

TEST_F(fun_misc_files, a_file_exists_when_it_can_be_opened_for_reading) {
  scratch_.write("file", "");
  EXPECT_TRUE(Tfun_misc::file_exists("file"));
  EXPECT_TRUE(Tfun_misc::file_exists(".")) << "a readable directory";
  EXPECT_FALSE(Tfun_misc::file_exists("missing"));
  EXPECT_FALSE(Tfun_misc::file_exists(""));
  EXPECT_FALSE(Tfun_misc::file_exists(nullptr));
}

/// Whether the check holds in a child that is an ordinary user.
template <typename Check>
bool holds_for_ordinary_user(Check check) {
  constexpr uid_t kNobody = 65534;
  EXPECT_EQ(::chmod(".", 0755), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::geteuid() == 0 && ::setresuid(kNobody, kNobody, kNobody) != 0) ::_exit(1);
    ::_exit(check() ? 0 : 2);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return status == 0;
}

TEST_F(fun_misc_files, an_unreadable_file_does_not_exist) {
  scratch_.write("readable", "");
  scratch_.write("unreadable", "");
  ASSERT_EQ(::chmod("readable", 0644), 0);
  ASSERT_EQ(::chmod("unreadable", 0), 0);
  EXPECT_TRUE(holds_for_ordinary_user(
      [] { return Tfun_misc::file_exists("readable") && !Tfun_misc::file_exists("unreadable"); }));
}

TEST_F(fun_misc_files, an_unreadable_file_stands_at_its_path_all_the_same) {
  scratch_.write("unreadable", "");
  ASSERT_EQ(::chmod("unreadable", 0), 0);
  EXPECT_TRUE(holds_for_ordinary_user([] { return Tfun_misc::dir_exists("unreadable"); }));
}

TEST_F(fun_misc_files, asking_for_a_fifo_does_not_wait_for_its_writer) {
  ASSERT_EQ(::mkfifo("fifo", 0600), 0);
  EXPECT_TRUE(Tfun_misc::file_exists("fifo"));
}

TEST_F(fun_misc_files, asking_for_a_file_leaves_nothing_open) {
  scratch_.write("file", "");
  const std::set<int> before = open_descriptors();
  Tfun_misc::file_exists("file");
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(fun_misc_files, the_size_of_a_file_is_counted_in_bytes) {
  scratch_.write("file", "12345");
  scratch_.write("empty", "");
  EXPECT_EQ(Tfun_misc::get_file_size("file"), 5);
  EXPECT_EQ(Tfun_misc::get_file_size("empty"), 0);
  fs::resize_file("file", 5'000'000'000);
  EXPECT_EQ(Tfun_misc::get_file_size("file"), 5'000'000'000);
}

TEST_F(fun_misc_files, the_size_of_a_missing_file_is_minus_one) {
  EXPECT_EQ(Tfun_misc::get_file_size("missing"), -1);
  EXPECT_EQ(Tfun_misc::get_file_size(nullptr), -1);
}

TEST_F(fun_misc_files, a_saved_text_replaces_the_content) {
  scratch_.write("file", "something longer");
  EXPECT_TRUE(Tfun_misc::save_file_data("file", "text\n"));
  EXPECT_EQ(scratch_.read("file"), "text\n");
  EXPECT_TRUE(Tfun_misc::save_file_data("new", "x"));
  EXPECT_EQ(scratch_.read("new"), "x");
}

TEST_F(fun_misc_files, saving_an_empty_text_truncates_and_gives_false) {
  scratch_.write("file", "content");
  EXPECT_FALSE(Tfun_misc::save_file_data("file", ""));
  EXPECT_TRUE(scratch_.has("file"));
  EXPECT_EQ(scratch_.read("file"), "");
}

TEST_F(fun_misc_files, saving_to_what_cannot_be_opened_gives_false) {
  EXPECT_FALSE(Tfun_misc::save_file_data("missing/file", "text"));
  EXPECT_FALSE(Tfun_misc::save_file_data(nullptr, "text"));
  scratch_.write("file", "content");
  EXPECT_FALSE(Tfun_misc::save_file_data("file", nullptr));
  EXPECT_EQ(scratch_.read("file"), "content");
}

TEST_F(fun_misc_files, a_file_is_loaded_without_a_terminator) {
  scratch_.write("file", "ab");
  std::array<char, 8200> buffer{};
  buffer.fill('#');
  EXPECT_TRUE(Tfun_misc::load_file_data("file", buffer.data()));
  EXPECT_EQ(std::string(buffer.data(), 3), "ab#");
}

TEST_F(fun_misc_files, at_most_8192_bytes_are_loaded) {
  for (const std::size_t size : {8191U, 8192U, 8193U, 20000U}) {
    scratch_.write("file", std::string(size, 'x'));
    std::array<char, 20001> buffer{};
    EXPECT_TRUE(Tfun_misc::load_file_data("file", buffer.data()));
    EXPECT_EQ(std::strlen(buffer.data()), std::min<std::size_t>(size, 8192));
  }
}

TEST_F(fun_misc_files, nothing_to_load_gives_false) {
  scratch_.write("empty", "");
  std::array<char, 8193> buffer{};
  EXPECT_FALSE(Tfun_misc::load_file_data("empty", buffer.data()));
  EXPECT_FALSE(Tfun_misc::load_file_data("missing", buffer.data()));
  EXPECT_FALSE(Tfun_misc::load_file_data(".", buffer.data()));
  EXPECT_FALSE(Tfun_misc::load_file_data(nullptr, buffer.data()));
  EXPECT_FALSE(Tfun_misc::load_file_data("empty", nullptr));
  EXPECT_EQ(buffer[0], '\0');
}

TEST_F(fun_misc_files, a_copy_is_equal_to_its_source) {
  for (const std::size_t size : {0U, 1U, 1023U, 1024U, 1025U, 5000U}) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
      content[i] = static_cast<char>(i * 7);
    scratch_.write("from", content);
    scratch_.write("to", "old content");
    EXPECT_EQ(Tfun_misc::copyFile("from", "to"), 0);
    EXPECT_EQ(scratch_.read("to"), content);
    EXPECT_EQ(scratch_.read("from"), content);
  }
}

TEST_F(fun_misc_files, copying_a_missing_source_leaves_an_empty_destination) {
  EXPECT_EQ(Tfun_misc::copyFile("missing", "to"), -1);
  EXPECT_TRUE(scratch_.has("to"));
  scratch_.write("to", "old content");
  EXPECT_EQ(Tfun_misc::copyFile("missing", "to"), -1);
  EXPECT_EQ(scratch_.read("to"), "");
}

TEST_F(fun_misc_files, the_source_of_a_copy_is_opened_before_the_destination) {
  EXPECT_EQ(Tfun_misc::copyFile("same", "same"), -1) << "it was missing when it was asked for";
  EXPECT_TRUE(scratch_.has("same"));
  scratch_.write("same", "content");
  EXPECT_EQ(Tfun_misc::copyFile("same", "same"), 0);
  EXPECT_EQ(scratch_.read("same"), "");
}

TEST_F(fun_misc_files, copying_to_what_cannot_be_opened_fails) {
  scratch_.write("from", "content");
  EXPECT_EQ(Tfun_misc::copyFile("from", "missing/to"), -1);
  EXPECT_EQ(Tfun_misc::copyFile("from", nullptr), -1);
  EXPECT_EQ(Tfun_misc::copyFile(nullptr, "to"), -1);
  EXPECT_FALSE(scratch_.has("to"));
}

TEST_F(fun_misc_files, a_liveness_file_holds_one_digit_while_the_program_runs) {
  fs::create_directory("notify");
  scratch_.write("notify/alpha.dat", "something longer");
  Tfun_misc::UpdateProcessLiveFile("alpha", true);
  EXPECT_EQ(scratch_.read("notify/alpha.dat"), "1");
  Tfun_misc::UpdateProcessLiveFile("alpha", true);
  EXPECT_EQ(scratch_.read("notify/alpha.dat"), "1");
  Tfun_misc::UpdateProcessLiveFile("alpha", false);
  EXPECT_FALSE(scratch_.has("notify/alpha.dat"));
  Tfun_misc::UpdateProcessLiveFile("alpha", false);
  EXPECT_TRUE(fs::is_empty("notify"));
}

TEST_F(fun_misc_files, the_liveness_file_has_the_mode_of_any_new_file) {
  fs::create_directory("notify");
  const changed_umask mask{022};
  Tfun_misc::UpdateProcessLiveFile("alpha", true);
  EXPECT_EQ(mode_of("notify/alpha.dat"), 0644U);
}

TEST_F(fun_misc_files, a_slash_in_the_name_points_below_the_notify_directory) {
  fs::create_directories("notify/group");
  Tfun_misc::UpdateProcessLiveFile("group/alpha", true);
  EXPECT_EQ(scratch_.read("notify/group/alpha.dat"), "1");
  Tfun_misc::UpdateProcessLiveFile("", true);
  EXPECT_EQ(scratch_.read("notify/.dat"), "1");
}

TEST_F(fun_misc_files, without_a_notify_directory_no_liveness_file_is_written) {
  Tfun_misc::UpdateProcessLiveFile("alpha", true);
  Tfun_misc::UpdateProcessLiveFile("alpha", false);
  EXPECT_TRUE(fs::is_empty("."));
}

TEST_F(fun_misc_files, a_null_name_has_no_liveness_file) {
  fs::create_directory("notify");
  Tfun_misc::UpdateProcessLiveFile(nullptr, true);
  EXPECT_TRUE(fs::is_empty("notify"));
}

TEST_F(fun_misc_files, a_liveness_path_of_512_bytes_or_more_does_nothing) {
  fs::create_directory("notify");
  std::string nested;
  const std::size_t directory = scratch_.path().string().size() + std::strlen("/notify/");
  const std::size_t longest = 511 - directory - std::strlen(".dat");
  while (nested.size() + 201 < longest)
    nested += std::string(100, 'd') + '/';
  fs::create_directories("notify/" + nested);
  const std::string name = nested + std::string(longest - nested.size(), 'n');

  Tfun_misc::UpdateProcessLiveFile(name.c_str(), true);
  EXPECT_EQ(scratch_.read("notify/" + name + ".dat"), "1");

  const std::string too_long = "notify/" + name + "n.dat";
  Tfun_misc::UpdateProcessLiveFile((name + "n").c_str(), true);
  const fs::path holds_both = fs::path(too_long).parent_path();
  EXPECT_EQ(std::distance(fs::directory_iterator(holds_both), {}), 1) << "not even cut to fit";
  scratch_.write(too_long, "");
  Tfun_misc::UpdateProcessLiveFile((name + "n").c_str(), false);
  EXPECT_TRUE(scratch_.has(too_long));
}

TEST_F(fun_misc_files, a_working_directory_too_long_for_a_liveness_path_does_nothing) {
  const fs::path deep = enter_deep_dir(scratch_.path(), 510);
  fs::create_directory("notify");
  Tfun_misc::UpdateProcessLiveFile("a", true);
  EXPECT_TRUE(fs::is_empty("notify"));
}

TEST_F(fun_misc_files, threads_update_their_own_liveness_files_at_once) {
  fs::create_directory("notify");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([name = "program" + std::to_string(i), last = i % 2 == 0] {
      for (int round = 0; round < 100; ++round) {
        Tfun_misc::UpdateProcessLiveFile(name.c_str(), round % 2 == 0);
      }
      Tfun_misc::UpdateProcessLiveFile(name.c_str(), last);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(scratch_.read("notify/program0.dat"), "1");
  EXPECT_FALSE(scratch_.has("notify/program1.dat"));
  EXPECT_EQ(scratch_.read("notify/program2.dat"), "1");
  EXPECT_FALSE(scratch_.has("notify/program3.dat"));
}

}  // namespace
