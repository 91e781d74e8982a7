#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/misc/fun_misc.h"
#include "tests/support/scratch_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

/// Paths of this test are relative to an empty working directory.
class fun_misc_files : public testing::Test {
 protected:
  scratch_dir scratch_;
  working_dir inside_{scratch_.path()};
};

/// Puts a value into the environment for as long as the object lives.
class changed_variable final {
 public:
  changed_variable(const char* name, const std::string& value) : name_(name) {
    const char* const before = std::getenv(name);
    before_ = before == nullptr ? "" : before;
    ::setenv(name, value.c_str(), 1);
  }
  changed_variable(const changed_variable&) = delete;
  changed_variable& operator=(const changed_variable&) = delete;
  ~changed_variable() { ::setenv(name_, before_.c_str(), 1); }

 private:
  const char* name_;
  std::string before_;
};

/// Lets the process open nothing more for as long as the object lives.
class no_more_descriptors final {
 public:
  no_more_descriptors() {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    rlimit none = before_;
    none.rlim_cur = 0;
    ::setrlimit(RLIMIT_NOFILE, &none);
  }
  no_more_descriptors(const no_more_descriptors&) = delete;
  no_more_descriptors& operator=(const no_more_descriptors&) = delete;
  ~no_more_descriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

class changed_umask final {
 public:
  explicit changed_umask(mode_t mask) : before_(::umask(mask)) {}
  changed_umask(const changed_umask&) = delete;
  changed_umask& operator=(const changed_umask&) = delete;
  ~changed_umask() { ::umask(before_); }

 private:
  mode_t before_;
};

std::set<int> open_descriptors() {
  std::set<int> open;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    const int fd = std::stoi(entry.path().filename().string());
    if (::fcntl(fd, F_GETFD) >= 0) open.insert(fd);
  }
  // The directory itself was open while it was read.
  std::erase_if(open, [](int fd) { return ::fcntl(fd, F_GETFD) < 0; });
  return open;
}

mode_t mode_of(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

std::string joined_path(const char* name) {
  char out[1024] = "untouched";
  return Tfun_misc::get_current_path(out, name) ? out : "failed: "s + out;
}

/// A directory of nested names whose path is exactly `length` bytes long; the process is in it.
fs::path enter_deep_dir(const fs::path& root, std::size_t length) {
  std::string path = root.string();
  while (path.size() < length) {
    const std::size_t left = length - path.size();
    // Never leave a rest of one byte: it would have to be a "/" at the end.
    std::size_t name = std::min<std::size_t>(left - 1, 100);
    if (left - 1 - name == 1) --name;
    const std::string part(name, 'd');
    fs::create_directory(part);
    EXPECT_EQ(::chdir(part.c_str()), 0);
    path += '/' + part;
  }
  EXPECT_EQ(path.size(), length);
  return path;
}

TEST_F(fun_misc_files, a_name_is_joined_to_the_working_directory_with_one_slash) {
  const std::string here = scratch_.path().string();
  EXPECT_EQ(joined_path("keelmond.log"), here + "/keelmond.log");
  EXPECT_EQ(joined_path("/notify/"), here + "/notify/");
  EXPECT_EQ(joined_path("/x"), here + "/x");
  EXPECT_EQ(joined_path("/"), here + "/");
  EXPECT_EQ(joined_path(""), here + "/");
  EXPECT_EQ(joined_path("a/b"), here + "/a/b");
  EXPECT_EQ(joined_path("//x"), here + "//x");
}

TEST_F(fun_misc_files, a_null_name_counts_as_empty) {
  EXPECT_EQ(joined_path(nullptr), scratch_.path().string() + "/");
}

TEST(fun_misc_current_path, two_slashes_are_kept_in_the_root_directory) {
  const working_dir root{"/"};
  EXPECT_EQ(joined_path("/notify/"), "//notify/");
  EXPECT_EQ(joined_path("run.pid"), "/run.pid");
  EXPECT_EQ(joined_path(""), "/");
  EXPECT_EQ(joined_path("/"), "//");
}

TEST_F(fun_misc_files, an_array_is_never_written_beyond_its_end) {
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

TEST_F(fun_misc_files, a_pointer_takes_the_form_without_a_bound) {
  char out[512];
  char* const pointer = out;
  EXPECT_TRUE(Tfun_misc::get_current_path(pointer, "name"));
  EXPECT_EQ(out, scratch_.path().string() + "/name");
  EXPECT_FALSE(Tfun_misc::get_current_path(static_cast<char*>(nullptr), "name"));
}

TEST_F(fun_misc_files, only_the_joined_path_and_its_terminator_are_written) {
  char out[512];
  std::memset(out, '#', sizeof out);
  ASSERT_TRUE(Tfun_misc::get_current_path(out, "n"));
  EXPECT_EQ(out[std::strlen(out) + 1], '#');
}

TEST_F(fun_misc_files, a_name_that_lies_in_the_buffer_itself_is_read_before_it_is_overwritten) {
  char out[512] = "name";
  ASSERT_TRUE(Tfun_misc::get_current_path(out, out));
  EXPECT_EQ(out, scratch_.path().string() + "/name");
}

TEST_F(fun_misc_files, a_removed_working_directory_fails_and_leaves_the_buffer) {
  fs::create_directory("gone");
  const working_dir gone{"gone"};
  fs::remove(scratch_.file("gone"));
  EXPECT_EQ(joined_path("name"), "failed: untouched");
}

TEST_F(fun_misc_files, a_working_directory_of_1023_bytes_is_the_longest_that_is_read) {
  const fs::path longest = enter_deep_dir(scratch_.path(), 1023);
  char out[1100];
  ASSERT_TRUE(Tfun_misc::get_current_path(out, "n"));
  EXPECT_EQ(out, longest.string() + "/n");

  ASSERT_EQ(::chdir(scratch_.path().c_str()), 0);
  enter_deep_dir(scratch_.path(), 1024);
  EXPECT_EQ(joined_path("n"), "failed: untouched");
}

TEST_F(fun_misc_files, paths_and_liveness_files_work_through_a_null_global) {
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

TEST_F(fun_misc_files, a_directory_is_created_with_its_parents) {
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

TEST_F(fun_misc_files, the_umask_applies_to_a_created_directory) {
  const changed_umask mask{0200};
  EXPECT_TRUE(Tfun_misc::create_dir("only"));
  EXPECT_EQ(mode_of("only"), 0500U);
}

TEST_F(fun_misc_files, creating_a_directory_tells_whether_the_path_exists_afterwards) {
  scratch_.write("file", "");
  EXPECT_TRUE(Tfun_misc::create_dir("file")) << "a plain file exists too";
  EXPECT_FALSE(Tfun_misc::create_dir("file/below"));
  EXPECT_FALSE(Tfun_misc::create_dir(""));
  EXPECT_FALSE(Tfun_misc::create_dir(nullptr));
  EXPECT_TRUE(Tfun_misc::create_dir("/"));
}

TEST_F(fun_misc_files, a_path_is_created_up_to_its_511th_byte) {
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

TEST_F(fun_misc_files, the_directory_of_a_file_is_created) {
  EXPECT_TRUE(Tfun_misc::create_dir_by_filename("logs/today/one.log"));
  EXPECT_TRUE(fs::is_directory("logs/today"));
  EXPECT_FALSE(scratch_.has("logs/today/one.log"));
}

TEST_F(fun_misc_files, a_bare_file_name_has_no_directory_to_create) {
  EXPECT_FALSE(Tfun_misc::create_dir_by_filename("one.log"));
  EXPECT_FALSE(Tfun_misc::create_dir_by_filename("/keelmond_test_none"));
  EXPECT_FALSE(Tfun_misc::create_dir_by_filename(""));
  EXPECT_FALSE(Tfun_misc::create_dir_by_filename(nullptr));
  EXPECT_TRUE(fs::is_empty("."));
  EXPECT_TRUE(Tfun_misc::create_dir_by_filename("//keelmond_test_none")) << "its directory is /";
}

TEST_F(fun_misc_files, a_directory_of_512_bytes_is_too_long_to_create) {
  std::string directory;
  for (int i = 0; i < 5; ++i)
    directory += std::string(100, 'd') + '/';
  directory += std::string(6, 'e');
  EXPECT_FALSE(Tfun_misc::create_dir_by_filename((directory + "e/file").c_str()));
  EXPECT_TRUE(fs::is_empty("."));
  EXPECT_TRUE(Tfun_misc::create_dir_by_filename((directory + "/file").c_str()));
  EXPECT_TRUE(fs::is_directory(directory));
}

TEST_F(fun_misc_files, whatever_stands_at_a_path_counts_as_an_existing_directory) {
  scratch_.write("file", "");
  EXPECT_TRUE(Tfun_misc::dir_exists("file"));
  EXPECT_TRUE(Tfun_misc::dir_exists("."));
  EXPECT_FALSE(Tfun_misc::dir_exists("missing"));
  EXPECT_FALSE(Tfun_misc::dir_exists(""));
  EXPECT_FALSE(Tfun_misc::dir_exists(nullptr));
}

TEST_F(fun_misc_files, a_file_exists_when_it_can_be_opened_for_reading) {
  scratch_.write("file", "");
  EXPECT_TRUE(Tfun_misc::file_exists("file"));
  EXPECT_TRUE(Tfun_misc::file_exists(".")) << "a readable directory";
  EXPECT_FALSE(Tfun_misc::file_exists("missing"));
  EXPECT_FALSE(Tfun_misc::file_exists(""));
  EXPECT_FALSE(Tfun_misc::file_exists(nullptr));
}

TEST_F(fun_misc_files, an_unreadable_file_does_not_exist) {
  constexpr uid_t kNobody = 65534;
  scratch_.write("readable", "");
  scratch_.write("unreadable", "");
  ASSERT_EQ(::chmod(".", 0755), 0);
  ASSERT_EQ(::chmod("readable", 0644), 0);
  ASSERT_EQ(::chmod("unreadable", 0), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::geteuid() == 0 && ::setresuid(kNobody, kNobody, kNobody) != 0) ::_exit(1);
    ::_exit(Tfun_misc::file_exists("readable") && !Tfun_misc::file_exists("unreadable") ? 0 : 2);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
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
  EXPECT_FALSE(scratch_.has(too_long));
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

TEST(fun_misc_sleep, a_sleep_lasts_as_long_as_asked) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Tfun_misc::select_sleep(0, 30'000), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
  EXPECT_EQ(Tfun_misc::select_sleep(0, 0), 0);
}

TEST(fun_misc_sleep, a_signal_ends_the_sleep_and_it_is_not_resumed) {
  const auto before = std::signal(SIGALRM, [](int) {});
  // Repeated, so that one that comes before the sleep begins does no harm.
  const itimerval soon{{0, 20'000}, {0, 20'000}};
  const itimerval never{};
  ASSERT_EQ(::setitimer(ITIMER_REAL, &soon, nullptr), 0);
  const auto start = std::chrono::steady_clock::now();
  const int result = Tfun_misc::select_sleep(60, 0);
  const auto slept = std::chrono::steady_clock::now() - start;
  ::setitimer(ITIMER_REAL, &never, nullptr);
  std::signal(SIGALRM, before);
  EXPECT_EQ(result, -1);
  EXPECT_LT(slept, std::chrono::seconds(30));
}

TEST(fun_misc_sleep, a_negative_time_is_refused) {
  EXPECT_EQ(Tfun_misc::select_sleep(-1, 0), -1);
}

struct exec_result {
  bool result;
  std::string out;
  bool operator==(const exec_result&) const = default;
};

exec_result exec(const char* command, int max_lines) {
  std::vector<char> out(100'000);
  const bool result = Tfun_misc::linux_exec(command, out.data(), max_lines);
  return {result, out.data()};
}

TEST(fun_misc_exec, all_lines_are_read_without_a_limit) {
  EXPECT_EQ(exec("echo a; echo b", 0), (exec_result{true, "a\nb\n"}));
  EXPECT_EQ(exec("echo a; echo b", -1), (exec_result{true, "a\nb\n"}));
  EXPECT_EQ(exec("printf 'a\\nb'", 0), (exec_result{true, "a\nb"}));
}

TEST(fun_misc_exec, a_limit_of_one_line_always_gives_false) {
  EXPECT_EQ(exec("echo a; echo b", 1), (exec_result{false, "a\n"}));
  EXPECT_EQ(exec("echo a", 1), (exec_result{false, "a\n"}));
}

TEST(fun_misc_exec, a_larger_limit_stops_at_its_line_and_gives_true) {
  EXPECT_EQ(exec("echo a; echo b", 2), (exec_result{true, "a\nb\n"}));
  EXPECT_EQ(exec("echo a; echo b; echo c", 2), (exec_result{true, "a\nb\n"}));
  EXPECT_EQ(exec("echo a; echo b", 3), (exec_result{true, "a\nb\n"}));
}

TEST(fun_misc_exec, no_output_gives_false) {
  EXPECT_EQ(exec("true", 0), (exec_result{false, ""}));
  EXPECT_EQ(exec("exit 3", 2), (exec_result{false, ""}));
}

TEST(fun_misc_exec, lines_are_appended_to_the_text_that_is_there) {
  char out[64] = "before ";
  EXPECT_TRUE(Tfun_misc::linux_exec("echo a; echo b", out, 0));
  EXPECT_STREQ(out, "before a\nb\n");
}

TEST(fun_misc_exec, a_line_longer_than_8191_bytes_counts_as_several) {
  const std::string command = "head -c 20000 /dev/zero | tr '\\0' x; echo; echo b";
  EXPECT_EQ(exec(command.c_str(), 2), (exec_result{true, std::string(2 * 8191, 'x')}));
  EXPECT_EQ(exec(command.c_str(), 0), (exec_result{true, std::string(20'000, 'x') + "\nb\n"}));
}

TEST(fun_misc_exec, a_line_is_cut_at_a_nul) {
  EXPECT_EQ(exec("printf 'a\\0b\\nc\\n'", 0), (exec_result{true, "ac\n"}));
}

TEST(fun_misc_exec, null_texts_run_nothing) {
  char out[] = "untouched";
  EXPECT_FALSE(Tfun_misc::linux_exec(nullptr, out, 0));
  EXPECT_FALSE(Tfun_misc::linux_exec("echo a", nullptr, 0));
  EXPECT_STREQ(out, "untouched");
}

TEST(fun_misc_exec, a_command_that_cannot_be_started_throws) {
  char out[] = "untouched";
  std::string thrown;
  try {
    const no_more_descriptors limit;
    Tfun_misc::linux_exec("echo a", out, 0);
  } catch (const std::runtime_error& error) {
    thrown = error.what();
  }
  EXPECT_EQ(thrown, "popen() failed!");
  EXPECT_STREQ(out, "untouched");
}

TEST(fun_misc_exec, the_pipe_is_closed_and_its_command_waited_for) {
  const std::set<int> before = open_descriptors();
  const std::string shell = exec("echo $$; echo b", 1).out;
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(::kill(std::stoi(shell), 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

/// Puts a `cat` that prints `cpuinfo` before the real one.
class fun_misc_cores : public fun_misc_files {
 protected:
  void print_as_cpuinfo(const std::string& cpuinfo) const {
    scratch_.write("cpuinfo", cpuinfo);
    scratch_.write("cat", "#!/bin/sh\nwhile read -r l; do echo \"$l\"; done <" +
                              scratch_.file("cpuinfo") + "\n");
    fs::permissions(scratch_.file("cat"), fs::perms::owner_all);
  }

  std::set<int> before_ = open_descriptors();
  changed_variable path_{"PATH", scratch_.path().string() + ":" + std::getenv("PATH")};
};

TEST_F(fun_misc_cores, the_cores_of_the_first_line_are_counted) {
  print_as_cpuinfo("processor\t: 0\ncpu cores\t: 6\nprocessor\t: 1\ncpu cores\t: 4\n");
  EXPECT_EQ(Tfun_misc::get_cpu_core_count(), 6);
  print_as_cpuinfo("cpu cores :   12x3\n");
  EXPECT_EQ(Tfun_misc::get_cpu_core_count(), 12);
  print_as_cpuinfo("cpu cores\t:\n");
  EXPECT_EQ(Tfun_misc::get_cpu_core_count(), 0);
}

TEST_F(fun_misc_cores, without_a_line_of_cores_there_are_eight_and_eighteen_threads) {
  print_as_cpuinfo("processor\t: 0\nmodel name\t: none\n");
  EXPECT_EQ(Tfun_misc::get_cpu_core_count(), 8);
  Tfun_misc misc;
  EXPECT_EQ(misc.get_thread_size(), 18);
}

TEST_F(fun_misc_cores, a_line_of_cores_without_a_colon_counts_as_eight) {
  print_as_cpuinfo("cpu cores 4\n");
  EXPECT_EQ(Tfun_misc::get_cpu_core_count(), 8);
}

TEST_F(fun_misc_cores, only_511_bytes_of_the_line_are_looked_at) {
  print_as_cpuinfo("cpu cores" + std::string(501, ' ') + ":4\n");
  EXPECT_EQ(Tfun_misc::get_cpu_core_count(), 0) << "the number lies beyond them";
  print_as_cpuinfo("cpu cores" + std::string(502, ' ') + ":4\n");
  EXPECT_EQ(Tfun_misc::get_cpu_core_count(), 8) << "the colon does too";
}

TEST_F(fun_misc_cores, few_cores_give_more_threads_than_four_do) {
  const std::vector<std::array<int, 2>> curve{{0, 18}, {1, 18},  {2, 18},  {3, 18},
                                              {4, 10}, {5, 12},  {7, 16},  {8, 18},
                                              {9, 20}, {16, 34}, {-4, 18}, {64, 130}};
  for (const auto& [cores, threads] : curve) {
    print_as_cpuinfo("cpu cores\t: " + std::to_string(cores) + "\n");
    Tfun_misc misc;
    EXPECT_EQ(misc.get_thread_size(), threads) << cores;
  }
}

TEST_F(fun_misc_cores, the_thread_size_is_computed_once) {
  print_as_cpuinfo("cpu cores\t: 4\n");
  Tfun_misc misc;
  EXPECT_EQ(misc.get_thread_size(), 10);
  print_as_cpuinfo("cpu cores\t: 9\n");
  EXPECT_EQ(misc.get_thread_size(), 10);
  Tfun_misc other;
  EXPECT_EQ(other.get_thread_size(), 20);
}

TEST_F(fun_misc_cores, a_pipeline_that_cannot_be_started_counts_as_no_cores) {
  int cores = -1;
  int threads = -1;
  {
    const no_more_descriptors limit;
    cores = Tfun_misc::get_cpu_core_count();
    Tfun_misc misc;
    threads = misc.get_thread_size();
  }
  EXPECT_EQ(cores, 0);
  EXPECT_EQ(threads, 18);
}

TEST_F(fun_misc_cores, each_count_leaves_one_pipe_open_that_children_do_not_get) {
  print_as_cpuinfo("cpu cores\t: 4\n");
  Tfun_misc::get_cpu_core_count();
  std::set<int> left = open_descriptors();
  std::erase_if(left, [this](int fd) { return before_.contains(fd); });
  ASSERT_EQ(left.size(), 1U);
  EXPECT_EQ(::fcntl(*left.begin(), F_GETFD), FD_CLOEXEC);
  struct stat status {};
  ASSERT_EQ(::fstat(*left.begin(), &status), 0);
  EXPECT_TRUE(S_ISFIFO(status.st_mode));
}

}  // namespace
