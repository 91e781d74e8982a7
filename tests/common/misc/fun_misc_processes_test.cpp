#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

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
#include <vector>

#include "common/misc/fun_misc.h"
#include "tests/common/misc/process_state.h"
#include "tests/support/scratch_dir.h"

namespace {

namespace fs = std::filesystem;

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

TEST(fun_misc_exec, a_signal_loses_nothing_of_the_output) {
  struct sigaction before {};
  struct sigaction not_restarting {};
  not_restarting.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGALRM, &not_restarting, &before), 0);
  const itimerval often{{0, 20'000}, {0, 20'000}};
  const itimerval never{};
  ASSERT_EQ(::setitimer(ITIMER_REAL, &often, nullptr), 0);
  const exec_result result = exec("printf a; sleep 0.2; echo b; sleep 0.2; echo c", 0);
  ::setitimer(ITIMER_REAL, &never, nullptr);
  ::sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(result, (exec_result{true, "ab\nc\n"}));
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
class fun_misc_cores : public scratch_test {
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
