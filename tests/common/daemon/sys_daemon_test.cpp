#include "common/daemon/sys_daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "common/misc/unique_fd.h"
#include "tests/support/captured_output.h"
#include "tests/support/fault.h"
#include "tests/support/golden.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"

namespace {

void no_body() {}

using signal_list = std::vector<std::pair<pid_t, int>>;

/// Asks in a directory that holds a pid file with the given text, and catches all signals sent.
class pid_file : public testing::Test {
 protected:
  pid_file() {
    faults.kill = [this](pid_t pid, int sig) {
      sent_.emplace_back(pid, sig);
      return 0;
    };
  }

  void write(const std::string& text) const { scratch_.write("run.pid", text); }
  bool ask() {
    const captured_output output;
    const bool only_one = Tsys_daemon("run.pid", no_body).run_only_one();
    printed_ = output.text();
    return only_one;
  }
  void expect_refused_without_a_signal(const std::string& text) {
    write(text);
    EXPECT_FALSE(ask()) << text;
    EXPECT_EQ(printed_, golden::kAnotherInstance) << text;
    EXPECT_EQ(sent_, signal_list()) << text;
  }

  scratch_dir scratch_;
  working_dir inside_{scratch_.path()};
  no_faults_afterwards clean_up_;
  signal_list sent_;
  std::string printed_;
};

TEST(sys_daemon_global, is_null_until_main_creates_it) {
  EXPECT_EQ(g_sys_daemon, nullptr);
}

TEST_F(pid_file, that_is_missing_lets_the_process_go_on_without_a_word) {
  EXPECT_TRUE(ask());
  EXPECT_EQ(printed_, "");
  EXPECT_EQ(sent_, signal_list());
  EXPECT_FALSE(scratch_.has("run.pid"));
}

TEST_F(pid_file, that_is_empty_is_a_running_daemon_and_nobody_is_signalled) {
  expect_refused_without_a_signal("");
}

TEST_F(pid_file, with_zero_or_without_digits_signals_nobody) {
  for (const char* text : {"0", "00", "run", "-", "+", " \n", "x12", "- 1"})
    expect_refused_without_a_signal(text);
}

TEST_F(pid_file, with_a_number_that_is_no_process_id_signals_nobody) {
  for (const char* text : {"-1", "-4711", "2147483648", "4294967297", "99999999999999999999"})
    expect_refused_without_a_signal(text);
}

TEST_F(pid_file, with_a_number_sends_sigusr1_to_it_whether_or_not_it_lives) {
  for (const auto& [text, pid] :
       std::vector<std::pair<std::string, pid_t>>{{"4711", 4711},
                                                  {" \t\n12abc", 12},
                                                  {"+7", 7},
                                                  {"2147483647", 2147483647},
                                                  {"5\n6", 5},
                                                  {std::string("8\0009", 3), 8}}) {
    sent_.clear();
    write(text);
    EXPECT_FALSE(ask()) << text;
    EXPECT_EQ(printed_, golden::kAnotherInstance) << text;
    EXPECT_EQ(sent_, (signal_list{{pid, SIGUSR1}})) << text;
  }
  EXPECT_EQ(SIGUSR1, 10);
}

TEST_F(pid_file, is_read_for_128_bytes_at_most) {
  write(std::string(127, ' ') + "12345");
  EXPECT_FALSE(ask());
  EXPECT_EQ(sent_, (signal_list{{1, SIGUSR1}}));
}

TEST_F(pid_file, with_128_digits_is_read_within_bounds) {
  expect_refused_without_a_signal(std::string(128, '9'));
  expect_refused_without_a_signal(std::string(5000, '0'));
}

TEST_F(pid_file, is_neither_changed_nor_removed_by_asking) {
  write("4711");
  EXPECT_FALSE(ask());
  EXPECT_FALSE(ask()) << "it blocks until somebody deletes it";
  EXPECT_EQ(scratch_.read("run.pid"), "4711");
}

TEST_F(pid_file, of_a_live_process_has_it_receive_sigusr1) {
  faults.kill = nullptr;
  static volatile std::sig_atomic_t received = 0;
  received = 0;
  const auto before = ::signal(SIGUSR1, [](int) { received = received + 1; });
  write(std::to_string(::getpid()));
  EXPECT_FALSE(ask());
  EXPECT_EQ(received, 1);
  Tsys_daemon("run.pid", no_body).send_signal();
  EXPECT_EQ(received, 2);
  ::signal(SIGUSR1, before);
}

TEST_F(pid_file, that_cannot_be_read_lets_the_process_go_on) {
  write("4711");
  EXPECT_EQ(::chmod("run.pid", 0), 0);
  const std::string directory = scratch_.path();
  // A superuser may read everything, so it asks as somebody else.
  EXPECT_EQ(::chmod(directory.c_str(), 0755), 0);
  in_child([&] {
    std::filesystem::current_path(directory);
    if (::geteuid() == 0) {
      ASSERT_EQ(::setresuid(65534, 65534, 65534), 0);
    }
    const captured_output output;
    EXPECT_TRUE(Tsys_daemon("run.pid", no_body).run_only_one());
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(sent_, signal_list());
  });
}

TEST_F(pid_file, that_is_no_regular_file_is_refused_and_never_waited_for) {
  ASSERT_EQ(::mkfifo("run.pid", 0666), 0);
  EXPECT_FALSE(ask());
  ASSERT_EQ(::unlink("run.pid"), 0);
  ASSERT_EQ(::mkdir("run.pid", 0777), 0);
  EXPECT_FALSE(ask());
  EXPECT_EQ(printed_, golden::kAnotherInstance);
  EXPECT_EQ(sent_, signal_list());
}

TEST_F(pid_file, with_a_number_can_be_asked_without_a_message) {
  write("4711");
  const captured_output output;
  Tsys_daemon("run.pid", no_body).send_signal();
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(sent_, (signal_list{{4711, SIGUSR1}}));
}

TEST_F(pid_file, that_is_missing_or_empty_has_send_signal_signal_nobody) {
  const captured_output output;
  Tsys_daemon("run.pid", no_body).send_signal();
  write("");
  Tsys_daemon("run.pid", no_body).send_signal();
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(sent_, signal_list());
}

TEST_F(pid_file, that_can_be_read_but_not_opened_is_refused) {
  // A socket is one, for whoever asks.
  const unique_fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{AF_UNIX, "run.pid"};
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::access("run.pid", R_OK), 0);
  EXPECT_FALSE(ask());
  EXPECT_EQ(printed_, golden::kAnotherInstance);
  EXPECT_EQ(sent_, signal_list());
}

std::size_t open_descriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& each : std::filesystem::directory_iterator("/proc/self/fd"))
    ++count;
  return count;
}

TEST_F(pid_file, stays_open_when_it_was_empty_and_only_then) {
  in_child([&] {
    const std::size_t before = open_descriptors();
    write_file("run.pid", "4711");
    ask();
    EXPECT_EQ(open_descriptors(), before);
    write_file("run.pid", "");
    ask();
    EXPECT_EQ(open_descriptors(), before + 1);
  });
}

TEST_F(pid_file, asks_for_the_name_that_the_object_was_given) {
  scratch_.write("other.pid", "4711");
  const captured_output output;
  EXPECT_TRUE(Tsys_daemon("run.pid", no_body).run_only_one());
  EXPECT_FALSE(Tsys_daemon("other.pid", no_body).run_only_one());
}

TEST_F(pid_file, keeps_the_pointer_to_its_name_and_not_the_text) {
  char name[] = "run.pid";
  Tsys_daemon daemon(name, no_body);
  write("4711");
  name[0] = 'x';
  EXPECT_TRUE(daemon.run_only_one());
}

// The daemon's body in the tests below.

/// Where the body of the last daemon looked, and what it saw.
void write_what_the_body_sees() {
  struct stat status {};
  const bool there = ::stat("run.pid", &status) == 0;
  const mode_t mask = ::umask(0);
  std::string seen = std::filesystem::current_path().string() + "\n";
  seen += "pid " + std::to_string(::getpid()) + "\n";
  seen += "session leader " + std::to_string(::getsid(0) == ::getpid()) + "\n";
  seen += "pid file " + std::to_string(there) + " size " + std::to_string(status.st_size) +
          " mode " + std::to_string(status.st_mode & 07777U) + "\n";
  seen += "umask " + std::to_string(mask) + "\n";
  write_file("seen", seen);
}

struct process_end {
  pid_t pid;
  int status;
};

/// Becomes a daemon in a process of its own, and waits for all processes that it took.
/// The first to be forked is the first in the list.
std::vector<process_end> ends_of(const std::function<void()>& become_daemon) {
  const pid_t starter = ::fork();
  if (starter == 0) {
    become_daemon();
    ::_exit(42);  // only whoever comes back
  }
  std::vector<process_end> ends;
  process_end end{};
  // Orphans are adopted by the process that calls this.
  while ((end.pid = ::waitpid(-1, &end.status, 0)) > 0)
    ends.push_back(end);
  std::stable_partition(ends.begin(), ends.end(),
                        [&](const process_end& each) { return each.pid == starter; });
  return ends;
}

std::vector<int> exit_codes(const std::vector<process_end>& ends) {
  std::vector<int> codes;
  for (const process_end& end : ends)
    codes.push_back(WIFEXITED(end.status) ? WEXITSTATUS(end.status) : -1);
  std::sort(codes.begin(), codes.end());
  return codes;
}

TEST(init_daemon, ends_every_process_but_the_daemon_with_status_0_and_returns_there) {
  in_child([] {
    const auto ends = ends_of([] { Tsys_daemon("run.pid", no_body).init_daemon("."); });
    EXPECT_EQ(exit_codes(ends), (std::vector<int>{0, 0, 42}));
  });
}

TEST(init_daemon, runs_the_body_in_the_directory_with_an_empty_pid_file_for_everybody) {
  in_child([] {
    const std::string start = std::filesystem::current_path();
    ASSERT_TRUE(std::filesystem::create_directory("there"));
    write_file("there/run.pid", "an old one");
    ASSERT_EQ(::chmod("there/run.pid", 0600), 0);
    ::umask(077);
    const auto ends = ends_of([&] {
      Tsys_daemon("run.pid", write_what_the_body_sees).init_daemon((start + "/there").c_str());
    });
    ASSERT_EQ(ends.size(), 3U);
    const auto daemon = std::find_if(ends.begin(), ends.end(),
                                     [](const auto& end) { return WEXITSTATUS(end.status) == 42; });
    ASSERT_NE(daemon, ends.end());
    const std::string pid = std::to_string(daemon->pid);
    EXPECT_EQ(
        read_file("there/seen"),
        start + "/there\npid " + pid + "\nsession leader 0\npid file 1 size 0 mode 438\numask 0\n");
    EXPECT_EQ(read_file("there/run.pid"), pid) << "no line end";
    EXPECT_FALSE(std::filesystem::exists("run.pid"));
  });
}

TEST(init_daemon, removes_an_old_pid_file_instead_of_writing_into_it) {
  in_child([] {
    write_file("run.pid", "an old one");
    std::filesystem::create_hard_link("run.pid", "old");
    ends_of([] { Tsys_daemon("run.pid", no_body).init_daemon("."); });
    EXPECT_EQ(read_file("old"), "an old one");
    EXPECT_GT(std::stoi(read_file("run.pid")), 0);
  });
}

TEST(init_daemon, stays_where_it_is_when_the_directory_cannot_be_entered) {
  in_child([] {
    const auto ends = ends_of([] { Tsys_daemon("run.pid", no_body).init_daemon("missing/"); });
    EXPECT_EQ(exit_codes(ends), (std::vector<int>{0, 0, 42}));
    EXPECT_GT(std::stoi(read_file("run.pid")), 0);
  });
}

TEST(init_daemon, never_runs_the_body_when_the_pid_file_cannot_be_created) {
  in_child([] {
    const auto ends =
        ends_of([] { Tsys_daemon("no/run.pid", write_what_the_body_sees).init_daemon("."); });
    EXPECT_EQ(exit_codes(ends), (std::vector<int>{0, 0, 42})) << "it comes back";
    EXPECT_FALSE(std::filesystem::exists("seen"));
  });
}

TEST(init_daemon, keeps_what_the_process_reads_from_and_prints_to) {
  in_child([] {
    write_file("input", "given");
    const unique_fd input(::open("input", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::dup2(input.get(), STDIN_FILENO), STDIN_FILENO);
    const captured_output output(STDOUT_FILENO);
    const captured_output errors(STDERR_FILENO);
    ends_of([] {
      Tsys_daemon("run.pid", [] {
        char text[8] = {};
        if (::read(STDIN_FILENO, text, sizeof text) != 5) ::_exit(1);
        if (::write(STDOUT_FILENO, text, 5) != 5) ::_exit(1);
        if (::write(STDERR_FILENO, "wrong", 5) != 5) ::_exit(1);
      }).init_daemon(".");
    });
    EXPECT_EQ(output.text(), "given");
    EXPECT_EQ(errors.text(), "wrong");
  });
}

TEST(init_daemon, keeps_the_handlers_of_signals) {
  in_child([] {
    ::signal(SIGPIPE, SIG_IGN);
    ends_of([] {
      Tsys_daemon("run.pid", [] {
        if (::signal(SIGPIPE, SIG_DFL) == SIG_IGN) write_file("ignored", "");
      }).init_daemon(".");
    });
    EXPECT_TRUE(std::filesystem::exists("ignored"));
  });
}

TEST(init_daemon, does_not_pass_the_pid_file_on_to_programs) {
  in_child([] {
    ends_of([] {
      Tsys_daemon("run.pid", [] {
        for (int fd = 3; fd < 64; ++fd) {
          struct stat open {};
          struct stat named {};
          if (::fstat(fd, &open) == 0 && ::stat("run.pid", &named) == 0 &&
              open.st_ino == named.st_ino) {
            write_file("flags", std::to_string(::fcntl(fd, F_GETFD)));
          }
        }
      }).init_daemon(".");
    });
    EXPECT_EQ(read_file("flags"), std::to_string(FD_CLOEXEC));
  });
}

TEST(init_daemon, ends_with_status_0_when_the_first_fork_fails) {
  const child_end end = run_in_child([] {
    faults.fork = [] {
      errno = EAGAIN;
      return -1;
    };
    Tsys_daemon("run.pid", no_body).init_daemon(".");
  });
  EXPECT_FALSE(end.returned);
  EXPECT_EQ(end.status, 0);
}

TEST(init_daemon, ends_with_status_0_when_the_second_fork_fails) {
  in_child([] {
    const auto ends = ends_of([] {
      int forks = 0;
      faults.fork = [&] {
        if (++forks == 1) return real::fork();
        errno = EAGAIN;
        return -1;
      };
      Tsys_daemon("run.pid", no_body).init_daemon(".");
    });
    EXPECT_EQ(exit_codes(ends), (std::vector<int>{0, 0}));
    EXPECT_FALSE(std::filesystem::exists("run.pid"));
  });
}

TEST(signal_exit, removes_the_file_and_ends_with_status_0) {
  const scratch_dir scratch;
  scratch.write("run.pid", "");
  const child_end end =
      run_in_child([&] { Tsys_daemon::signal_exit(SIGUSR2, scratch.file("run.pid").c_str()); });
  EXPECT_FALSE(end.returned);
  EXPECT_EQ(end.status, 0);
  EXPECT_FALSE(scratch.has("run.pid"));
}

TEST(signal_exit, ends_with_status_0_when_there_is_no_such_file) {
  const scratch_dir scratch;
  const child_end end =
      run_in_child([&] { Tsys_daemon::signal_exit(SIGUSR2, scratch.file("none").c_str()); });
  EXPECT_FALSE(end.returned);
  EXPECT_EQ(end.status, 0);
}

TEST(init_daemon, detaches_from_the_session_of_its_starter) {
  in_child([] {
    ends_of([] {
      Tsys_daemon("run.pid", [] {
        write_file("session", std::to_string(::getsid(0)));
      }).init_daemon(".");
    });
    EXPECT_NE(read_file("session"), std::to_string(::getsid(0)));
  });
}

TEST(init_daemon, without_a_body_only_writes_the_pid_file) {
  in_child([] {
    const auto ends = ends_of([] { Tsys_daemon("run.pid", nullptr).init_daemon(nullptr); });
    EXPECT_EQ(exit_codes(ends), (std::vector<int>{0, 0, 42}));
    EXPECT_GT(std::stoi(read_file("run.pid")), 0);
  });
}

TEST(init_daemon, without_a_name_for_the_pid_file_never_runs_the_body) {
  in_child([] {
    EXPECT_TRUE(Tsys_daemon(nullptr, no_body).run_only_one());
    const auto ends =
        ends_of([] { Tsys_daemon(nullptr, write_what_the_body_sees).init_daemon("."); });
    EXPECT_EQ(exit_codes(ends), (std::vector<int>{0, 0, 42}));
    EXPECT_FALSE(std::filesystem::exists("seen"));
  });
}

TEST(signal_exit, without_a_path_ends_with_status_0) {
  const child_end end = run_in_child([] { Tsys_daemon::signal_exit(SIGUSR2, nullptr); });
  EXPECT_FALSE(end.returned);
  EXPECT_EQ(end.status, 0);
}

TEST(signal_reload, needs_no_object_and_does_nothing) {
  in_child([] {
    const captured_output output;
    g_sys_daemon = nullptr;
    Tsys_daemon::signal_reload(SIGUSR1);
    EXPECT_EQ(output.text(), "");
    EXPECT_TRUE(std::filesystem::is_empty("."));
  });
}

}  // namespace
