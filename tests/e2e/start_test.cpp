#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "common/misc/unique_fd.h"
#include "tests/e2e/golden.h"
#include "tests/e2e/support/children.h"
#include "tests/e2e/support/installation.h"
#include "tests/e2e/support/private_namespace.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace {

const std::string kRefusedStart = std::string(golden::kLogStart) + golden::kClosed;

std::string refused_console(const installation& place) {
  return golden::console_start(place) + golden::kAnotherInstance;
}

/// Blocks SIGUSR1 in the test process and takes it from there.
class caught_usr1 final {
 public:
  caught_usr1() {
    ::sigemptyset(&set_);
    ::sigaddset(&set_, SIGUSR1);
    ::sigprocmask(SIG_BLOCK, &set_, &before_);
  }
  caught_usr1(const caught_usr1&) = delete;
  caught_usr1& operator=(const caught_usr1&) = delete;
  ~caught_usr1() {
    take();
    ::sigprocmask(SIG_SETMASK, &before_, nullptr);
  }
  /// @return who sent the signal; 0 when nobody has.
  pid_t take() {
    constexpr timespec kNoTime{};
    siginfo_t info{};
    return ::sigtimedwait(&set_, &info, &kNoTime) == SIGUSR1 ? info.si_pid : 0;
  }

 private:
  sigset_t set_;
  sigset_t before_;
};

/// Makes the starts in a directory wait in front of their check for another instance.
class held_start final {
 public:
  explicit held_start(const installation& place)
      : directory_(::open(place.site().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    EXPECT_EQ(::flock(directory_.get(), LOCK_EX | LOCK_NB), 0);
  }
  void let_go() { directory_.reset(); }

 private:
  unique_fd directory_;
};

/// Whether the signal is in one of the sets of /proc/PID/status: "SigCgt", "SigIgn".
bool handles(pid_t pid, const char* set, int number) {
  const std::string digits = process_table::status_field(pid, set);
  return !digits.empty() && (std::stoull(digits, nullptr, 16) >> (number - 1) & 1U) != 0;
}

}  // namespace

TEST(start, writes_its_lines_to_console_and_log_in_order) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  const pid_t starter = place.spawn();
  EXPECT_EQ(children::wait_for_end(starter), 0);

  expect_console(place, golden::console_start(place) + golden::kLoad + golden::started(name));
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched);
  EXPECT_NE(place.log().find("keelmond Start PID: " + std::to_string(starter) + " \r\n"),
            std::string::npos);
  EXPECT_EQ(place.errors(), "");
}

TEST(start, logs_the_child_that_runs_the_program_as_its_process) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t program = place.start_with(name);
  const auto children = place.children();
  ASSERT_EQ(children.size(), 1U);
  EXPECT_TRUE(process_table::is_below(program, children[0]));
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched);
  EXPECT_NE(place.log().find("launched sub process PID: " + std::to_string(children[0]) + " \r\n"),
            std::string::npos);
}

TEST(start, dates_lines_with_the_local_time) {
  installation place;
  const auto local_time = [](std::time_t now) {
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S\r\n", std::localtime(&now));
    return std::string(text);
  };
  const std::time_t before = std::time(nullptr);
  place.start();
  const std::time_t after = std::time(nullptr);
  bool found = false;
  for (std::time_t second = before; second <= after; ++second)
    found = found || place.log().ends_with(local_time(second));
  EXPECT_TRUE(found) << place.log();
}

TEST(start, keeps_an_empty_pid_file_for_everybody_while_it_runs) {
  installation place;
  place.start({.before_exec = [] { ::umask(077); }});
  struct stat status {};
  ASSERT_EQ(::stat((place.site() / "run.pid").c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 0);
  EXPECT_EQ(status.st_mode & 07777, 0666U);
}

TEST(start, leaves_its_daemon_in_a_session_of_its_own_without_leading_it) {
  installation place;
  place.start();
  const auto daemon = process_table::find(place.daemon());
  ASSERT_TRUE(daemon.has_value());
  EXPECT_NE(daemon->session, ::getsid(0));
  EXPECT_NE(daemon->session, daemon->pid);
  EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(daemon->pid) + "/cwd"), place.site());
}

TEST(start, appends_to_the_log_of_earlier_runs) {
  installation place;
  place.start();
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  const std::string first = place.log();
  place.start();
  EXPECT_TRUE(place.log().starts_with(first));
  EXPECT_EQ(with_times_and_pids_masked(place.log()), kRefusedStart + golden::kLogStart);
}

TEST(start, is_refused_while_a_daemon_runs) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  place.start();
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched);
  const std::string log = place.log();
  const std::string console = place.console();

  EXPECT_EQ(place.run(), 0);

  EXPECT_EQ(place.console(), console + refused_console(place));
  ASSERT_TRUE(place.log().starts_with(log));
  EXPECT_EQ(with_times_and_pids_masked(place.log().substr(log.size())), kRefusedStart);
  EXPECT_EQ(place.daemons(), std::vector<pid_t>{place.daemon()});
  EXPECT_EQ(place.loads(), 1U) << "an empty pid file signals nobody";
  EXPECT_TRUE(place.is_live(name));
  EXPECT_EQ(place.read("run.pid"), "");
}

TEST(start, is_possible_in_two_directories_at_once) {
  installation one;
  installation other;
  one.start();
  other.start();
  EXPECT_EQ(one.shut_down_by(SIGUSR2), 0);
  EXPECT_TRUE(process_table::is_alive(other.daemon()));
}

TEST(start, leaves_one_daemon_of_many_that_start_together) {
  installation place;
  std::vector<pid_t> starters;
  for (int i = 0; i < 8; ++i)
    starters.push_back(place.spawn());
  for (const pid_t starter : starters)
    EXPECT_EQ(children::wait_for_end(starter), 0);
  EXPECT_TRUE(wait_until([&] { return place.loads() == 1 && place.daemons().size() == 1; }));
  EXPECT_EQ(count(place.console(), golden::kAnotherInstance), 7U);
}

TEST(start, signals_the_process_whose_number_a_left_pid_file_holds_and_gives_up) {
  installation place;
  caught_usr1 signal;
  write_file(place.site() / "run.pid", std::to_string(::getpid()));
  const pid_t starter = place.spawn();
  EXPECT_EQ(children::wait_for_end(starter), 0);
  EXPECT_EQ(signal.take(), starter);
  EXPECT_EQ(place.console(), refused_console(place));
  EXPECT_EQ(with_times_and_pids_masked(place.log()), kRefusedStart);
  EXPECT_EQ(place.read("run.pid"), std::to_string(::getpid()));
  EXPECT_TRUE(place.processes().empty());
}

TEST(start, is_blocked_by_a_pid_file_of_a_process_that_is_long_gone) {
  installation place;
  // More than the kernel ever gives out.
  write_file(place.site() / "run.pid", "2000000000");
  EXPECT_EQ(place.run(), 0);
  EXPECT_EQ(place.console(), refused_console(place));
}

TEST(start, is_blocked_by_a_pid_file_without_a_number_and_signals_nobody) {
  std::vector<std::string> texts{"", "0", "none", "99999999999999999999"};
  // Would stand for every process that there is, so nobody but us may be at hand.
  if (private_namespace::is_inside()) texts.emplace_back("-1");
  for (const std::string& text : texts) {
    SCOPED_TRACE(text);
    installation place;
    caught_usr1 signal;
    write_file(place.site() / "run.pid", text);
    EXPECT_EQ(place.run(), 0);
    EXPECT_EQ(signal.take(), 0);
    EXPECT_EQ(place.console(), refused_console(place));
  }
}

TEST(start, ignores_a_pid_file_that_may_not_be_read) {
  installation place;
  const fs::path pid_file = place.site() / "run.pid";
  write_file(pid_file, "0");
  fs::permissions(pid_file, fs::perms::none);
  if (::access(pid_file.c_str(), R_OK) == 0) {
    EXPECT_EQ(place.run(), 0);
    EXPECT_EQ(place.console(), refused_console(place));
  } else {
    place.start();
    EXPECT_EQ(place.read("run.pid"), "");
  }
}

TEST(start, takes_the_file_as_empty_when_it_may_not_be_written) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  const fs::path config = place.site() / "config" / "server.ini";
  fs::permissions(config, fs::perms::owner_read);
  const bool may_write = ::access(config.c_str(), W_OK) == 0;
  place.start();
  EXPECT_EQ(place.console(), golden::console_start(place) + golden::kLoad +
                                 (may_write ? golden::started(name) : ""));
}

TEST(start, supervises_without_a_notify_directory_and_creates_none) {
  installation place;
  fs::remove(place.site() / "notify");
  const std::string name = place.add_steady();
  const pid_t program = place.start_with(name);
  ::kill(program, SIGKILL);
  EXPECT_NE(place.wait_running(name, 2), program);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_FALSE(place.has("notify"));
}

TEST(start, handles_sigint_before_the_check_and_the_other_signals_after_it) {
  installation place;
  held_start before_check(place);
  const pid_t starter = place.spawn();
  ASSERT_TRUE(wait_until([&] { return handles(starter, "SigCgt", SIGINT); }));
  EXPECT_TRUE(handles(starter, "SigIgn", SIGPIPE));
  EXPECT_TRUE(handles(starter, "SigIgn", SIGCHLD));
  for (const int number : {SIGUSR1, SIGUSR2})
    EXPECT_FALSE(handles(starter, "SigCgt", number)) << number;

  before_check.let_go();
  EXPECT_EQ(children::wait_for_end(starter), 0);
  ASSERT_TRUE(wait_until([&] {
    return place.daemons().size() == 1 && process_table::count_watches(place.daemons()[0]) == 1;
  }));
  const pid_t daemon = place.daemons()[0];
  for (const int number : {SIGINT, SIGUSR1, SIGUSR2})
    EXPECT_TRUE(handles(daemon, "SigCgt", number)) << number;
  for (const int number : {SIGPIPE, SIGCHLD})
    EXPECT_TRUE(handles(daemon, "SigIgn", number)) << number;
}

TEST(start, is_given_up_in_order_when_it_is_interrupted_before_the_check) {
  installation place;
  held_start before_check(place);
  const pid_t starter = place.spawn();
  ASSERT_TRUE(wait_until([&] { return handles(starter, "SigCgt", SIGINT); }));
  ASSERT_EQ(::kill(starter, SIGINT), 0);
  before_check.let_go();
  EXPECT_EQ(children::wait_for_end(starter), 0);
  EXPECT_TRUE(place.processes().empty());
  EXPECT_EQ(place.console(), golden::console_start(place));
  EXPECT_EQ(with_times_and_pids_masked(place.log()), kRefusedStart);
  EXPECT_FALSE(place.has("run.pid"));
}

TEST(start, ignores_a_reload_signal_before_the_first_load_is_over) {
  installation place;
  constexpr int kEntries = 30000;
  std::vector<listed_program> missing;
  for (int i = 0; i < kEntries; ++i)
    missing.push_back({"missing" + std::to_string(i), "/nonexistent/program", "run"});
  place.save(missing);
  ASSERT_EQ(place.run(), 0);
  ASSERT_TRUE(wait_until([&] {
    return place.daemons().size() == 1 && place.console().find("read ini") != std::string::npos;
  }));
  const pid_t daemon = place.daemons()[0];
  ASSERT_EQ(::kill(daemon, SIGUSR1), 0);
  const std::string last = golden::read_entry("missing" + std::to_string(kEntries - 1));
  ASSERT_EQ(place.console().find(last), std::string::npos) << "the load was over too early";
  ASSERT_TRUE(wait_until([&] { return process_table::count_watches(daemon) == 1; }));
  EXPECT_EQ(place.loads(), 1U);
  // The signal is not just late: the next one finds its handler.
  ASSERT_EQ(::kill(daemon, SIGUSR1), 0);
  EXPECT_TRUE(wait_until([&] { return place.loads() == 2; }));
}
