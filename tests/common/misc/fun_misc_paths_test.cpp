#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "common/misc/fun_misc.h"
#include "tests/common/misc/process_state.h"
#include "tests/support/scratch_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

class fun_misc_paths : public scratch_test {};

std::string joined_path(const char* name) {
  char out[1024] = "untouched";
  return Tfun_misc::get_current_path(out, name) ? out : "failed: "s + out;
}

TEST_F(fun_misc_paths, a_name_is_joined_to_the_working_directory_with_one_slash) {
  const std::string here = scratch_.path().string();
  EXPECT_EQ(joined_path("keelmond.log"), here + "/keelmond.log");
  EXPECT_EQ(joined_path("/notify/"), here + "/notify/");
  EXPECT_EQ(joined_path("/x"), here + "/x");
  EXPECT_EQ(joined_path("/"), here + "/");
  EXPECT_EQ(joined_path(""), here + "/");
  EXPECT_EQ(joined_path("a/b"), here + "/a/b");
  EXPECT_EQ(joined_path("//x"), here + "//x");
}

TEST_F(fun_misc_paths, a_null_name_counts_as_empty) {
  EXPECT_EQ(joined_path(nullptr), scratch_.path().string() + "/");
}

TEST(fun_misc_current_path, two_slashes_are_kept_in_the_root_directory) {
  const working_dir root{"/"};
  EXPECT_EQ(joined_path("/notify/"), "//notify/");
  EXPECT_EQ(joined_path("run.pid"), "/run.pid");
  EXPECT_EQ(joined_path(""), "/");
  EXPECT_EQ(joined_path("/"), "//");
}

TEST_F(fun_misc_paths, an_array_is_never_written_beyond_its_end) {
  const std::string joined = scratch_.path().string() + "/name";
  std::vector<char> exact(joined.size() + 1, '#');
  EXPECT_TRUE(Tfun_misc::get_current_path(exact.data(), exact.size(), "name"));
  EXPECT_EQ(exact.data(), joined);

  std::vector<char> short_by_one(joined.size(), '#');
  EXPECT_FALSE(Tfun_misc::get_current_path(short_by_one.data(), short_by_one.size(), "name"));
  EXPECT_EQ(short_by_one, std::vector<char>(joined.size(), '#'));

  char array[4] = "old";
  EXPECT_FALSE(Tfun_misc::get_current_path(array, "name"));
  EXPECT_STREQ(array, "old");
  EXPECT_FALSE(Tfun_misc::get_current_path(array, 0, "name"));
}

TEST_F(fun_misc_paths, a_pointer_takes_the_form_without_a_bound) {
  char out[512];
  char* const pointer = out;
  EXPECT_TRUE(Tfun_misc::get_current_path(pointer, "name"));
  EXPECT_EQ(out, scratch_.path().string() + "/name");
  EXPECT_FALSE(Tfun_misc::get_current_path(static_cast<char*>(nullptr), "name"));
}

TEST_F(fun_misc_paths, only_the_joined_path_and_its_terminator_are_written) {
  char out[512];
  std::memset(out, '#', sizeof out);
  ASSERT_TRUE(Tfun_misc::get_current_path(out, "n"));
  EXPECT_EQ(out[std::strlen(out) + 1], '#');
}

TEST_F(fun_misc_paths, a_name_that_lies_in_the_buffer_itself_is_read_before_it_is_overwritten) {
  char out[512] = "name";
  ASSERT_TRUE(Tfun_misc::get_current_path(out, out));
  EXPECT_EQ(out, scratch_.path().string() + "/name");
}

TEST_F(fun_misc_paths, a_removed_working_directory_fails_and_leaves_the_buffer) {
  fs::create_directory("gone");
  const working_dir gone{"gone"};
  fs::remove(scratch_.file("gone"));
  EXPECT_EQ(joined_path("name"), "failed: untouched");
}

TEST_F(fun_misc_paths, a_working_directory_of_1023_bytes_is_the_longest_that_is_read) {
  const fs::path longest = enter_deep_dir(scratch_.path(), 1023);
  char out[1100];
  ASSERT_TRUE(Tfun_misc::get_current_path(out, "n"));
  EXPECT_EQ(out, longest.string() + "/n");

  ASSERT_EQ(::chdir(scratch_.path().c_str()), 0);
  enter_deep_dir(scratch_.path(), 1024);
  char untouched[1100] = "untouched";
  EXPECT_FALSE(Tfun_misc::get_current_path(untouched, "n"));
  EXPECT_STREQ(untouched, "untouched");
}

TEST_F(fun_misc_paths, paths_and_liveness_files_work_through_a_null_global) {
  ASSERT_EQ(g_fun_misc, nullptr);
  char out[512];
  EXPECT_TRUE(g_fun_misc->get_current_path(out, "run.pid"));
  EXPECT_EQ(out, scratch_.path().string() + "/run.pid");
  char* const pointer = out;
  EXPECT_TRUE(g_fun_misc->get_current_path(pointer, "/"));
  EXPECT_EQ(out, scratch_.path().string() + "/");
  fs::create_directory("notify");
  g_fun_misc->UpdateProcessLiveFile("alpha", true);
  EXPECT_EQ(scratch_.read("notify/alpha.dat"), "1");
}

std::string directory_part(const char* full, bool add_slash) {
  char out[64] = {};
  Tfun_misc::get_filename_path(full, out, add_slash);
  return out;
}

TEST(fun_misc_filename_path, the_directory_part_comes_with_or_without_a_slash) {
  EXPECT_EQ(directory_part("/usr/bin/prog", true), "/usr/bin/");
  EXPECT_EQ(directory_part("/usr/bin/prog", false), "/usr/bin");
  EXPECT_EQ(directory_part("bin/prog", true), "bin/");
  EXPECT_EQ(directory_part("/usr/bin/", false), "/usr/bin");
  EXPECT_EQ(directory_part("//prog", true), "//");
}

TEST(fun_misc_filename_path, the_root_directory_is_never_produced) {
  for (const char* full : {"/prog", "prog", "/", ""}) {
    for (const bool add_slash : {true, false}) {
      char out[] = "untouched";
      Tfun_misc::get_filename_path(full, out, add_slash);
      EXPECT_STREQ(out, "untouched") << full;
    }
  }
}

TEST(fun_misc_filename_path, nothing_is_terminated_and_the_slash_ends_the_text_that_is_there) {
  char out[16] = "XXXXXX";
  Tfun_misc::get_filename_path("/a/b", out, false);
  EXPECT_STREQ(out, "/aXXXX");
  Tfun_misc::get_filename_path("/a/b", out, true);
  EXPECT_STREQ(out, "/aXXXX/");
}

TEST(fun_misc_filename_path, null_texts_do_nothing) {
  char out[] = "untouched";
  Tfun_misc::get_filename_path(nullptr, out, true);
  EXPECT_STREQ(out, "untouched");
  Tfun_misc::get_filename_path("/a/b", nullptr, true);
}

TEST(fun_misc_last_pos, only_one_character_is_ever_found) {
  EXPECT_EQ(Tfun_misc::get_last_pos("a/b/c", "/"), 3);
  EXPECT_EQ(Tfun_misc::get_last_pos("/", "/"), 0);
  EXPECT_EQ(Tfun_misc::get_last_pos("a/b/c", "b/"), -1);
  EXPECT_EQ(Tfun_misc::get_last_pos("a/b/c", ""), -1);
  EXPECT_EQ(Tfun_misc::get_last_pos("a/b/c", "x"), -1);
  EXPECT_EQ(Tfun_misc::get_last_pos("", "/"), -1);
  EXPECT_EQ(Tfun_misc::get_last_pos(nullptr, "/"), -1);
  EXPECT_EQ(Tfun_misc::get_last_pos("a", nullptr), -1);
}

TEST_F(fun_misc_paths, a_directory_is_created_with_its_parents) {
  const changed_umask mask{0};
  EXPECT_TRUE(Tfun_misc::create_dir("a/b/c/"));
  for (const char* made : {"a", "a/b", "a/b/c"}) {
    EXPECT_TRUE(fs::is_directory(made)) << made;
    EXPECT_EQ(mode_of(made), 0700U) << made;
  }
  EXPECT_TRUE(Tfun_misc::create_dir("a/b/c")) << "it exists";
  EXPECT_TRUE(Tfun_misc::create_dir(scratch_.file("x/y").c_str()));
  EXPECT_TRUE(fs::is_directory("x/y"));
  EXPECT_TRUE(Tfun_misc::create_dir("p//q"));
  EXPECT_TRUE(fs::is_directory("p/q"));
}

TEST_F(fun_misc_paths, the_umask_applies_to_a_created_directory) {
  const changed_umask mask{0200};
  EXPECT_TRUE(Tfun_misc::create_dir("only"));
  EXPECT_EQ(mode_of("only"), 0500U);
}

TEST_F(fun_misc_paths, creating_a_directory_tells_whether_the_path_exists_afterwards) {
  scratch_.write("file", "");
  EXPECT_TRUE(Tfun_misc::create_dir("file")) << "a plain file exists too";
  EXPECT_FALSE(Tfun_misc::create_dir("file/below"));
  EXPECT_FALSE(Tfun_misc::create_dir(""));
  EXPECT_FALSE(Tfun_misc::create_dir(nullptr));
  EXPECT_TRUE(Tfun_misc::create_dir("/"));
}

TEST_F(fun_misc_paths, a_path_is_created_up_to_its_511th_byte) {
  const std::string part = std::string(100, 'd') + '/';
  std::string path;
  for (int i = 0; i < 5; ++i)
    path += part;
  const std::string fits = path + std::string(6, 'e');
  ASSERT_EQ(fits.size(), 511U);
  EXPECT_TRUE(Tfun_misc::create_dir(fits.c_str()));
  fs::remove_all(std::string(100, 'd'));

  EXPECT_FALSE(Tfun_misc::create_dir((fits + "e").c_str()));
  EXPECT_TRUE(fs::is_directory(fits));
}

TEST_F(fun_misc_paths, the_directory_of_a_file_is_created) {
  EXPECT_TRUE(Tfun_misc::create_dir_by_filename("logs/today/one.log"));
  EXPECT_TRUE(fs::is_directory("logs/today"));
  EXPECT_FALSE(scratch_.has("logs/today/one.log"));
}

TEST_F(fun_misc_paths, a_bare_file_name_has_no_directory_to_create) {
  EXPECT_FALSE(Tfun_misc::create_dir_by_filename("one.log"));
  EXPECT_FALSE(Tfun_misc::create_dir_by_filename("/keelmond_test_none"));
  EXPECT_FALSE(Tfun_misc::create_dir_by_filename(""));
  EXPECT_FALSE(Tfun_misc::create_dir_by_filename(nullptr));
  EXPECT_TRUE(fs::is_empty("."));
  EXPECT_TRUE(Tfun_misc::create_dir_by_filename("//keelmond_test_none")) << "its directory is /";
}

TEST_F(fun_misc_paths, a_directory_of_512_bytes_is_too_long_to_create) {
  std::string directory;
  for (int i = 0; i < 5; ++i)
    directory += std::string(100, 'd') + '/';
  directory += std::string(6, 'e');
  EXPECT_FALSE(Tfun_misc::create_dir_by_filename((directory + "e/file").c_str()));
  EXPECT_TRUE(fs::is_empty("."));
  EXPECT_TRUE(Tfun_misc::create_dir_by_filename((directory + "/file").c_str()));
  EXPECT_TRUE(fs::is_directory(directory));
}

TEST_F(fun_misc_paths, whatever_stands_at_a_path_counts_as_an_existing_directory) {
  scratch_.write("file", "");
  EXPECT_TRUE(Tfun_misc::dir_exists("file"));
  EXPECT_TRUE(Tfun_misc::dir_exists("."));
  EXPECT_FALSE(Tfun_misc::dir_exists("missing"));
  EXPECT_FALSE(Tfun_misc::dir_exists(""));
  EXPECT_FALSE(Tfun_misc::dir_exists(nullptr));
}

}  // namespace
