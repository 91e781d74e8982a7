#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>

#include "tests/e2e/runner/program_files.h"
#include "tests/support/wait_until.h"

using runner::program_phase;
using runner::program_state;

namespace {

/// A key, what the kernel calls it, and a value that differs from what is usual.
struct limit_case {
  const char* key;
  const char* title;
  decltype(RLIMIT_NOFILE) resource;
  rlim_t soft;
  rlim_t hard;
};

constexpr limit_case kLimits[] = {
    {"nofile", "Max open files", RLIMIT_NOFILE, 111, 222},
    {"nproc", "Max processes", RLIMIT_NPROC, 2111, 2222},
    {"core", "Max core file size", RLIMIT_CORE, 4096, 8192},
    {"as", "Max address space", RLIMIT_AS, 1UL << 31, 1UL << 32},
    {"data", "Max data size", RLIMIT_DATA, 1UL << 29, 1UL << 30},
    {"stack", "Max stack size", RLIMIT_STACK, 1UL << 20, 1UL << 21},
    {"fsize", "Max file size", RLIMIT_FSIZE, 1UL << 27, 1UL << 28},
    {"memlock", "Max locked memory", RLIMIT_MEMLOCK, 4096, 16384},
    {"msgqueue", "Max msgqueue size", RLIMIT_MSGQUEUE, 1024, 2048},
    {"sigpending", "Max pending signals", RLIMIT_SIGPENDING, 77, 88},
    {"rtprio", "Max realtime priority", RLIMIT_RTPRIO, 3, 5},
};

/// Whether this user may raise limits.
bool may_raise() {
  constexpr unsigned kSysResource = 24;
  const std::string powers = process_table::status_field(::getpid(), "CapEff");
  return (std::strtoull(powers.c_str(), nullptr, 16) >> kSysResource & 1) != 0;
}

/// What can be asked for here.
rlimit possible(const limit_case& wanted) {
  rlimit now{};
  ::getrlimit(wanted.resource, &now);
  if (may_raise()) return {wanted.soft, wanted.hard};
  return {std::min(wanted.soft, now.rlim_max), std::min(wanted.hard, now.rlim_max)};
}

/// The line of a limit in /proc/PID/limits, its columns separated by single blanks.
std::string limit_line(pid_t pid, const std::string& title) {
  std::istringstream lines(read_file("/proc/" + std::to_string(pid) + "/limits"));
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(title + " ")) continue;
    std::istringstream words(line.substr(title.size()));
    std::string soft;
    std::string hard;
    words >> soft >> hard;
    return soft.append(" ").append(hard);
  }
  return "";
}

/// The file of the control group of version 2 that a process is in.
std::string group_file(pid_t pid, const std::string& file) {
  std::string mount;
  std::istringstream mounts(read_file("/proc/self/mounts"));
  for (std::string device, place, type, rest; mounts >> device >> place >> type;) {
    std::getline(mounts, rest);
    if (type == "cgroup2" && mount.empty()) mount = place;
  }
  const std::string groups = read_file("/proc/" + std::to_string(pid) + "/cgroup");
  const std::size_t at = groups.find("0::") + 3;
  return read_file(mount + groups.substr(at, groups.find('\n', at) - at) + "/" + file);
}

}  // namespace

TEST(runner_limits, each_is_set_soft_and_hard) {
  runner_place place;
  std::string text = "[limits]\n";
  for (const limit_case& one : kLimits) {
    const rlimit value = possible(one);
    text += std::string(one.key) + " = " + std::to_string(value.rlim_cur) + ":" +
            std::to_string(value.rlim_max) + "\n";
  }
  const std::string name = place.add("[program]\ncommand = sleep 1000\n" + text);
  place.start();
  const program_state state = place.wait_phase(name, program_phase::running);
  for (const limit_case& one : kLimits) {
    const rlimit value = possible(one);
    EXPECT_EQ(limit_line(state.pid, one.title),
              std::to_string(value.rlim_cur) + " " + std::to_string(value.rlim_max))
        << one.key;
  }
}

TEST(runner_limits, one_value_is_both_and_sizes_have_units) {
  runner_place place;
  const std::string name =
      place.add("[program]\ncommand = sleep 1000\n[limits]\nnofile = 123\nstack = 1M\n");
  const std::string pair =
      place.add("[program]\ncommand = sleep 1000\n[limits]\nnofile = 123:124\ncore = 0\n");
  place.start();
  pid_t pid = place.wait_phase(name, program_phase::running).pid;
  EXPECT_EQ(limit_line(pid, "Max open files"), "123 123");
  EXPECT_EQ(limit_line(pid, "Max stack size"), "1048576 1048576");
  pid = place.wait_phase(pair, program_phase::running).pid;
  EXPECT_EQ(limit_line(pid, "Max open files"), "123 124");
  EXPECT_EQ(limit_line(pid, "Max core file size"), "0 0");
}

TEST(runner_limits, one_that_this_user_may_not_raise_is_told_with_its_line) {
  if (may_raise()) GTEST_SKIP() << "this user may raise limits";
  runner_place place;
  // Twice what is allowed, which is not for ever.
  rlimit now{};
  ::getrlimit(RLIMIT_NOFILE, &now);
  const std::string name =
      place.add("[program]\ncommand = sleep 1000\n[limits]\ncore = 0\nnofile = " +
                std::to_string(now.rlim_max * 2) + "\n");
  place.start();
  place.wait_phase(name, program_phase::waiting);
  // There is no advice for root.
  const std::string remedy =
      ::geteuid() == 0 ? "" : "; only a supervisor that runs as root may do that";
  EXPECT_TRUE(place.tells(place.path_of(name) +
                          ":6: nofile: cannot set it: Operation not permitted" + remedy + "\n"));
}

TEST(runner_limits, those_of_a_group_need_one_that_is_delegated) {
  struct group_case {
    const char* key;
    const char* value;
    const char* file;
    const char* content;
  };
  constexpr group_case kGroupLimits[] = {{"memory", "512M", "memory.max", "536870912\n"},
                                         {"cpu", "1.5", "cpu.max", "150000 100000\n"},
                                         {"tasks", "1000", "pids.max", "1000\n"}};
  runner_place place;
  std::vector<std::string> names;
  for (const group_case& one : kGroupLimits)
    names.push_back(
        place.add_steady("[limits]\n" + std::string(one.key) + " = " + one.value + "\n"));
  place.start();
  // Where the machine lets this user make groups, each program runs in one; elsewhere a line says
  // why it does not run.
  for (std::size_t i = 0; i < names.size(); ++i) {
    const group_case& wanted = kGroupLimits[i];
    program_state state;
    ASSERT_TRUE(wait_until([&] {
      state = place.state(names[i]).value_or(program_state{});
      return state.phase == program_phase::running || state.phase == program_phase::waiting;
    }));
    if (state.phase == program_phase::waiting) {
      EXPECT_TRUE(place.tells(place.path_of(names[i]) + ":5: " + wanted.key + ": "));
      EXPECT_TRUE(contains(state.status, "leave it out, or delegate the group")) << state.status;
      EXPECT_EQ(place.site().starts(names[i]), 0U);
    } else {
      EXPECT_TRUE(contains(read_file("/proc/" + std::to_string(state.pid) + "/cgroup"), names[i]));
      EXPECT_EQ(group_file(state.pid, wanted.file), wanted.content);
    }
  }
}
