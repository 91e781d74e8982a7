#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/misc/unique_fd.h"
#include "tests/e2e/golden.h"
#include "tests/e2e/support/children.h"
#include "tests/e2e/support/installation.h"
#include "tests/e2e/support/supervisor_binary.h"
#include "tests/support/wait_until.h"

namespace {

/// A set of signals as /proc/PID/status writes it.
std::string as_status(const std::vector<int>& signals) {
  unsigned long long bits = 0;
  for (const int number : signals)
    bits |= 1ULL << (number - 1);
  char text[32];
  std::snprintf(text, sizeof text, "%016llx", bits);
  return text;
}

/// `system` blocks it in the process that calls it, and not in the command.
constexpr int kBlockedBySystem = SIGCHLD;

/// For a script: its own line in /proc, as a command that it runs inherits it.
constexpr char kOwnBlocked[] = "$(grep SigBlk /proc/self/status)";
constexpr char kOwnIgnored[] = "$(grep SigIgn /proc/self/status)";

/// The set of signals at the end of a line of /proc/PID/status, without the two that belong to the
/// C library and that nobody can set.
std::string signals_in(const std::string& line) {
  const std::string digits = line.substr(line.size() - std::min<std::size_t>(line.size(), 16));
  const unsigned long long library = 3ULL << 31U;
  char text[32];
  std::snprintf(text, sizeof text, "%016llx", std::stoull(digits, nullptr, 16) & ~library);
  return text;
}

std::string signals_of(pid_t pid, const char* field) {
  return signals_in(process_table::status_field(pid, field));
}

/// What the program has noted at its last start.
std::string noted_signals(const installation& place, const std::string& name) {
  return signals_in(place.notes(name).back());
}

/// What a command reports that is run by the machine's shell, and that by a process which `prepare`
/// has set up. Some shells change the mask and the handling of SIGCHLD.
std::string told_through_shell(const std::string& field, void (*prepare)()) {
  int ends[2];
  if (::pipe(ends) != 0) throw std::runtime_error("pipe");
  const pid_t shell = ::fork();
  if (shell == 0) {
    ::dup2(ends[1], STDOUT_FILENO);
    prepare();
    const std::string command = "grep " + field + " /proc/self/status";
    ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    ::_exit(124);
  }
  children::announce(shell);
  EXPECT_EQ(children::wait_for_end(shell), 0);
  char line[64] = {};
  const ssize_t got = ::read(ends[0], line, sizeof line);
  ::close(ends[0]);
  ::close(ends[1]);
  if (got < 1) throw std::runtime_error("the shell is silent");
  return signals_in(std::string(line, static_cast<std::size_t>(got - 1)));
}

void ignore_as_we_do() {
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGCHLD, SIG_IGN);
}

/// Starts a supervisor with one program. @return the program.
pid_t start_program(installation& place, const std::string& name,
                    const start_options& options = {}) {
  place.save({place.entry(name)});
  place.start(options);
  return place.wait_running(name);
}

void block_some() {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int number : {SIGHUP, SIGTERM, SIGALRM})
    ::sigaddset(&set, number);
  ::sigprocmask(SIG_SETMASK, &set, nullptr);
}

/// Opens descriptors that survive an exec, as a careless parent does.
void leave_descriptors_open() {
  for (const int fd : {3, 7, 100, 900})
    ::dup2(STDERR_FILENO, fd);
}

}  // namespace

TEST(inheritance, gives_a_program_the_three_standard_descriptors_only) {
  installation place;
  // The one that `ls` itself opens to look is 3, when that is free.
  const std::string name =
      place.add_script(place.note_start("$(ls /proc/self/fd | tr '\\n' ' ')") + place.stay());
  const pid_t program = start_program(place, name, {.before_exec = leave_descriptors_open});
  EXPECT_EQ(place.notes(name)[0], std::to_string(program) + " 0 1 2 3 ");
}

TEST(inheritance, gives_a_program_the_mask_that_the_supervisor_was_started_with) {
  installation place;
  const std::string name = place.add_script(place.note_start(kOwnBlocked) + place.stay());
  start_program(place, name, {.before_exec = block_some});
  const std::string by_hand = told_through_shell("SigBlk", block_some);
  EXPECT_EQ(noted_signals(place, name), by_hand);
  // The shell may have its own ideas about masks, so what it was given counts too.
  EXPECT_EQ(signals_of(place.children().at(0), "SigBlk"),
            as_status({SIGHUP, SIGTERM, SIGALRM, kBlockedBySystem}));
  // All the same after a restart.
  ::kill(place.running(name).at(0), SIGKILL);
  place.wait_running(name, 2);
  EXPECT_EQ(noted_signals(place, name), by_hand);
  EXPECT_EQ(signals_of(place.children().at(0), "SigBlk"),
            as_status({SIGHUP, SIGTERM, SIGALRM, kBlockedBySystem}));
}

TEST(inheritance, gives_a_program_an_empty_mask_when_it_was_started_with_one) {
  installation place;
  const std::string name = place.add_script(place.note_start(kOwnBlocked) + place.stay());
  start_program(place, name);
  EXPECT_EQ(noted_signals(place, name), as_status({}));
  EXPECT_EQ(signals_of(place.children().at(0), "SigBlk"), as_status({kBlockedBySystem}));
}

TEST(inheritance, leaves_a_program_with_sigpipe_and_sigchld_ignored) {
  installation place;
  const std::string name = place.add_script(place.note_start(kOwnIgnored) + place.stay());
  start_program(place, name);
  EXPECT_EQ(noted_signals(place, name), told_through_shell("SigIgn", ignore_as_we_do));
  EXPECT_EQ(signals_of(place.children().at(0), "SigIgn"),
            as_status({SIGPIPE, SIGCHLD, SIGINT, SIGQUIT}))
      << "the last two are ignored while a command runs";
}

TEST(inheritance, does_not_make_a_program_ignore_signals_because_another_one_is_being_stopped) {
  installation place;
  const std::string looping = place.add_script(place.note_start(kOwnIgnored));
  const std::string stopped = place.add_steady();
  place.save({place.entry(looping), place.entry(stopped)});
  place.start();
  place.wait_running(stopped);
  // Each reload runs a command, and the other program is started again and again meanwhile.
  place.save({place.entry(looping), place.entry(stopped, "stop")});
  for (int i = 0; i < 10 || place.starts(looping) < 10; ++i) {
    const std::size_t loads = place.loads();
    place.signal(SIGUSR1);
    ASSERT_TRUE(wait_until([&] { return place.loads() > loads; }));
  }
  ASSERT_TRUE(wait_until([&] { return count(place.console(), "kill -USR2 result") >= 10; }));
  const std::string by_hand = told_through_shell("SigIgn", ignore_as_we_do);
  const auto notes = place.notes(looping);
  for (const std::string& line : notes)
    EXPECT_EQ(signals_in(line), by_hand);
}

TEST(inheritance, keeps_its_own_descriptors_few_and_from_leaking) {
  installation place;
  const std::string name = place.add_steady();
  start_program(place, name);
  const auto open_files = [&] {
    std::size_t files = 0;
    const std::string directory = "/proc/" + std::to_string(place.daemon()) + "/fd";
    for ([[maybe_unused]] const auto& item : std::filesystem::directory_iterator(directory))
      ++files;
    return files;
  };
  const std::size_t before = open_files();
  for (int i = 0; i < 20; ++i) {
    const std::size_t loads = place.loads();
    place.signal(SIGUSR1);
    ASSERT_TRUE(wait_until([&] { return place.loads() > loads; }));
  }
  EXPECT_TRUE(wait_until([&] { return open_files() == before; }));
}

TEST(children, outlive_every_signal_that_is_sent_to_the_supervisor_by_name) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t program = start_program(place, name);
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched);
  const auto children = place.children();
  ASSERT_EQ(children.size(), 1U);
  for (const int number : {SIGUSR1, SIGUSR2, SIGINT}) {
    SCOPED_TRACE(number);
    ::kill(children[0], number);
    EXPECT_TRUE(wait_until(
        [&] { return process_table::status_field(children[0], "ShdPnd") == as_status({}); }));
  }
  EXPECT_TRUE(keeps([&] { return process_table::is_alive(children[0]); }));
  EXPECT_EQ(place.wait_running(name), program);
  EXPECT_EQ(place.children(), children);
  EXPECT_EQ(place.loads(), 1U);
  EXPECT_EQ(with_times_and_pids_masked(place.log()),
            std::string(golden::kLogStart) + golden::kLaunched);
}

TEST(children, end_with_their_programs_when_the_shutdown_signal_goes_to_all_of_that_name) {
  installation place;
  const std::string name = place.add_steady();
  start_program(place, name);
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched);
  for (const pid_t child : place.children())
    ::kill(child, SIGUSR2);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
  EXPECT_EQ(with_times_and_pids_masked(place.log()),
            std::string(golden::kLogStart) + golden::kLaunched + golden::kExited + golden::kClosed);
}

#ifndef KEELMOND_SANITIZED

TEST(children, are_no_larger_for_the_programs_that_were_started_before_them) {
  constexpr std::size_t kPrograms = 120;
  installation place;
  std::vector<listed_program> programs;
  for (std::size_t i = 0; i < kPrograms; ++i)
    programs.push_back(place.entry(place.add_steady()));
  place.save(programs);
  place.start();
  ASSERT_TRUE(wait_until([&] { return place.children().size() == kPrograms; }));
  for (const listed_program& program : programs)
    place.wait_running(program.name);
  auto children = place.children();
  std::sort(children.begin(), children.end());
  // In kB, the smallest of a few: one that is forked when the watcher has just been created gets
  // its stack as well.
  const auto smallest_of = [&](std::size_t from, std::size_t to) {
    int smallest = std::numeric_limits<int>::max();
    for (std::size_t i = from; i < to; ++i)
      smallest = std::min(smallest, std::stoi(process_table::status_field(children[i], "RssAnon")));
    return smallest;
  };
  // What the libc allocates for each thread would be more, and so would one stack for each.
  EXPECT_LE(smallest_of(kPrograms - 20, kPrograms), smallest_of(0, 20) + 8);
}

TEST(children, have_the_stack_of_the_thread_that_forks_and_that_of_the_main_thread) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t first = start_program(place, name);
  place.wait_watching();
  // The next child is forked when all threads are there.
  ::kill(first, SIGKILL);
  place.wait_running(name, 2);
  const pid_t daemon = place.daemon();
  const auto threads = static_cast<std::size_t>(process_table::count_threads(daemon));
  std::vector<std::uintptr_t> stacks = process_table::stack_pointers(daemon);
  if (stacks.empty()) GTEST_SKIP() << "the kernel does not tell where stacks are";
  ASSERT_TRUE(wait_until([&] {
    stacks = process_table::stack_pointers(daemon);
    return stacks.size() == threads;
  }));
  const pid_t child = place.children().at(0);
  const auto in_child = [&](std::uintptr_t stack) {
    return process_table::is_mapped(child, stack);
  };
  EXPECT_EQ(std::count_if(stacks.begin(), stacks.end(), in_child), 2) << "of " << threads;
}

#ifndef KEELMOND_COVERAGE

/// How many pages the daemon may change from one fork to the next. Two are those of the stack that
/// its children run on, too. From glibc 2.41 on the C library changes one of its own in each fork.
#if __GLIBC__ == 2 && __GLIBC_MINOR__ < 41
constexpr long kChangedPages = 2;
#else
constexpr long kChangedPages = 3;
#endif

// A page that the daemon changes after a fork stays in that child as it was.
TEST(children, share_nearly_all_pages_with_the_daemon) {
  if (is_other_supervisor_binary()) GTEST_SKIP() << "it may have another C library";
  constexpr std::size_t kStarts = 100;
  installation place;
  const std::string name = place.add_script(place.note_start());
  place.save({place.entry(name)});
  // Not a file: only for an output that somebody may read does the daemon note whether the reader
  // is stuck.
  const unique_fd output(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  place.start({.output = output.get()});
  const auto has_started = [&](std::size_t times) {
    return wait_until([&] { return place.starts(name) >= times; });
  };
  const auto changed_pages = [&] {
    return process_table::find(place.daemon()).value().minor_faults;
  };
  ASSERT_TRUE(has_started(kStarts));
  const auto starts_before = static_cast<long>(place.starts(name));
  const long before = changed_pages();
  ASSERT_TRUE(has_started(2 * kStarts));
  const long changed = changed_pages() - before;
  // Half a page for what is rare: the time of a new second takes two.
  const long starts = static_cast<long>(place.starts(name)) - starts_before;
  EXPECT_LE(2 * changed, (2 * kChangedPages + 1) * starts);
}

#endif

#endif
