#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <vector>

#include "common/misc/unique_fd.h"
#include "tests/e2e/support/children.h"
#include "tests/e2e/support/installation.h"
#include "tests/e2e/support/slow_log.h"
#include "tests/stress/support/stress.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;
using stress::between;
using stress::rounds;

namespace {

enum class end_request { usr2, interrupt, file_deleted };

/// Programs that meet their end in different ways.
struct program_mix {
  /// Those that the stop command ends, at once or a little later.
  std::vector<std::string> ending;
  /// Those that ignore it.
  std::vector<std::string> ignoring;

  program_mix(const installation& place, bool with_ignoring) {
    auto& site = const_cast<installation&>(place);
    for (int i = 0; i < 2; ++i) {
      ending.push_back(site.add_script("exit 1\n"));
      ending.push_back(site.add_steady());
      ending.push_back(
          site.add_script("trap 'sleep 0.2; exit 0' USR2\n" + place.note_start() + place.stay()));
    }
    if (with_ignoring) {
      ignoring.push_back(site.add_script("trap '' USR2\n" + place.note_start() + place.stay()));
    }
  }

  [[nodiscard]] std::vector<listed_program> entries(const installation& place) const {
    std::vector<listed_program> list;
    for (const auto* names : {&ending, &ignoring}) {
      for (const std::string& name : *names)
        list.push_back(place.entry(name));
    }
    return list;
  }
};

int shut_down(const installation& place, end_request kind) {
  if (kind == end_request::usr2) return place.shut_down_by(SIGUSR2);
  if (kind == end_request::interrupt) return place.shut_down_by(SIGINT);
  fs::remove(place.site() / "config" / "server.ini");
  return place.wait_end();
}

void expect_pid_file(const installation& place, end_request kind) {
  if (kind == end_request::usr2) {
    EXPECT_FALSE(place.has("run.pid"));
  } else {
    EXPECT_TRUE(place.has("run.pid"));
    EXPECT_EQ(place.read("run.pid"),
              kind == end_request::interrupt ? "" : std::to_string(place.daemon()));
  }
}

/// What is left of the programs is what ignores the stop command, and that is ended here.
void expect_only(const installation& place, const program_mix& programs) {
  EXPECT_TRUE(wait_until([&] { return stress::running_names(place, programs.ending).empty(); }))
      << "left or started again: " << stress::running_names(place, programs.ending).size();
  EXPECT_EQ(stress::running_names(place, programs.ignoring), programs.ignoring);
  for (const std::string& name : programs.ignoring) {
    for (const pid_t pid : place.running(name))
      ::kill(pid, SIGKILL);
  }
  EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
}

void expect_records(const installation& place, const program_mix& programs) {
  EXPECT_EQ(stress::launches(place), stress::ends(place) + programs.ignoring.size());
  std::vector<std::string> live;
  for (const auto& item : fs::directory_iterator(place.site() / "notify"))
    live.push_back(item.path().stem().string());
  EXPECT_EQ(live, programs.ignoring);
}

/// @return whether there was time for everything to be recorded. On a busy machine programs may
///         need longer than the supervisor waits for them.
bool start_and_shut_down(std::mt19937& random, end_request kind, bool with_ignoring) {
  installation place;
  const program_mix programs(place, with_ignoring);
  place.save(programs.entries(place));
  place.start(kind == end_request::file_deleted ? stress::fast() : start_options{});
  // Only a program that runs can ignore anything.
  for (const std::string& name : programs.ignoring)
    place.wait_running(name);
  stress::sleep_ms(between(random, 0, 20));
  for (int i = between(random, -2, 2); i > 0; --i)
    place.signal(SIGUSR1);

  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(shut_down(place, kind), 0);
  // It waits for a second when a program ignores it, and is far from that when none does.
  const bool in_time = std::chrono::steady_clock::now() - before <
                       std::chrono::milliseconds(with_ignoring ? 1300 : 900);

  const std::string log = place.log();
  EXPECT_TRUE(log.ends_with(golden::kClosed));
  EXPECT_EQ(count(log, golden::kClosed), 1U);
  expect_pid_file(place, kind);
  if (in_time) expect_records(place, programs);
  expect_only(place, programs);
  EXPECT_EQ(place.log(), log) << "written after the end";
  EXPECT_EQ(count(place.errors(), "inotify_add_watch: No such file or directory\n"),
            kind == end_request::file_deleted ? 1U : 0U);
  return in_time;
}

/// Kills the programs one by one around the moment at which the supervisor, which is shutting down,
/// stops to wait for them.
void kill_around_the_end_of_the_grace(const installation& place, const std::vector<pid_t>& pids) {
  ASSERT_TRUE(wait_until([&] { return stress::stopped_names(place).size() == pids.size(); }));
  stress::sleep_ms(990);
  for (const pid_t pid : pids) {
    ::kill(pid, SIGKILL);
    std::this_thread::sleep_for(std::chrono::microseconds(400));
  }
}

/// The children of a process, by whichever of its threads.
std::vector<pid_t> children_of(pid_t pid) {
  std::vector<pid_t> found;
  std::error_code gone;
  const fs::path tasks = fs::path("/proc") / std::to_string(pid) / "task";
  for (fs::directory_iterator at(tasks, gone), end; !gone && at != end; at.increment(gone)) {
    std::istringstream line(read_file(at->path() / "children"));
    for (pid_t child = 0; line >> child;)
      found.push_back(child);
  }
  return found;
}

/// Stops the shell of the next program that the supervisor launches, while it still is a shell.
/// @return it; 0 when it was too fast.
pid_t stop_next_shell(pid_t daemon) {
  std::vector<pid_t> shells;
  if (!wait_until([&] {
        for (const pid_t child : children_of(daemon)) {
          if (shells.empty()) shells = children_of(child);
        }
        return !shells.empty();
      })) {
    return 0;
  }
  ::kill(shells[0], SIGSTOP);
  const auto stopped = process_table::find(shells[0]);
  if (stopped && (stopped->name == "sh" || stopped->name == "keelmond")) return shells[0];
  ::kill(shells[0], SIGCONT);
  return 0;
}

/// Shuts down while the fork of a program is under way, lets it go on 700 ms later, and has the
/// child run the program 100 ms after that.
/// @return whether that is what happened. On a busy machine it may take longer, and the supervisor
///         does not wait for ever.
bool shut_down_during_a_long_fork() {
  using std::chrono::milliseconds;
  using clock = std::chrono::steady_clock;
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  place.start(stress::fast());
  place.wait_running(name);

  write_file(place.site() / "hold_child", "");
  write_file(place.site() / "hold_fork", "");
  stress::kill_running(place, name);
  EXPECT_TRUE(wait_until([&] { return place.has("held_fork"); }));
  const auto asked = clock::now();
  place.signal(SIGUSR2);
  stress::sleep_ms(700);
  fs::remove(place.site() / "held_fork");
  const auto forked = clock::now();
  stress::sleep_ms(100);
  fs::remove(place.site() / "hold_child");
  const bool in_time =
      forked - asked < milliseconds(900) && clock::now() - forked < milliseconds(200);

  EXPECT_EQ(place.wait_end(), 0);
  if (in_time) {
    EXPECT_TRUE(wait_until([&] { return place.processes().empty(); })) << "a program is left";
    EXPECT_EQ(stress::launches(place), 2U);
  }
  return in_time;
}

}  // namespace

TEST(shutdown, ends_every_program_that_can_be_ended_and_then_itself) {
  auto random = stress::random_numbers();
  constexpr end_request kKinds[] = {end_request::usr2, end_request::interrupt,
                                    end_request::file_deleted};
  int in_time = 0;
  for (int i = 0; i < rounds(500, 10) && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    in_time += start_and_shut_down(random, kKinds[i % 3], i % 4 == 3) ? 1 : 0;
  }
  EXPECT_GT(in_time, 0) << "the machine is too busy";
}

TEST(shutdown, leaves_no_program_that_was_just_being_launched) {
  auto random = stress::random_numbers();
  for (int i = 0; i < rounds(300, 15) && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    installation place;
    std::vector<listed_program> programs;
    for (int program = 0; program < 5; ++program)
      programs.push_back(place.entry(place.add_steady()));
    place.save(programs);
    ASSERT_EQ(place.run(), 0);
    ASSERT_TRUE(wait_until([&] { return place.daemons().size() == 1; }));
    const pid_t daemon = place.daemons().at(0);
    stress::sleep_ms(between(random, 0, 30));
    ::kill(daemon, SIGUSR2);
    EXPECT_EQ(children::wait_for_end(daemon), 0);
    EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
    EXPECT_TRUE(place.log().ends_with(golden::kClosed));
    EXPECT_EQ(stress::launches(place), stress::ends(place));
    EXPECT_FALSE(place.has("run.pid"));
  }
}

TEST(shutdown, waits_for_the_reload_that_is_under_way) {
  constexpr int kEntries = 20000 / stress::kSlower;
  std::vector<listed_program> missing;
  for (int i = 0; i < kEntries; ++i)
    missing.push_back({"missing" + std::to_string(i), "/nonexistent/program", "run"});
  const std::string last = "read ini file missing" + std::to_string(kEntries - 1) + " ";
  for (int i = 0; i < rounds(100, 6) && !HasFailure(); ++i) {
    installation place;
    place.save(missing);
    place.start();
    place.signal(SIGUSR1);
    ASSERT_TRUE(wait_until([&] { return place.loads() == 2; }));
    EXPECT_EQ(place.shut_down_by(i % 2 == 0 ? SIGUSR2 : SIGINT), 0);
    EXPECT_EQ(count(place.console(), last), 2U) << "a load was broken off";
  }
}

TEST(shutdown, happens_once_whatever_is_asked_for_meanwhile) {
  for (int i = 0; i < rounds(100, 4) && !HasFailure(); ++i) {
    installation place;
    const program_mix programs(place, false);
    place.save(programs.entries(place));
    place.start();
    const pid_t daemon = place.daemon();
    for (int signal = 0; signal < 200 && !children::status_of(daemon); ++signal) {
      for (const int number : {SIGUSR2, SIGINT, SIGUSR1})
        ::kill(daemon, number);
      stress::sleep_ms(2);
    }
    EXPECT_EQ(place.wait_end(), 0);
    EXPECT_TRUE(place.log().ends_with(golden::kClosed));
    EXPECT_EQ(count(place.log(), golden::kClosed), 1U);
    const auto stopped = stress::stopped_names(place);
    EXPECT_EQ(stopped, programs.ending);
    expect_only(place, programs);
  }
}

TEST(shutdown, waits_for_a_program_that_has_no_name_yet) {
  int caught = 0;
  const int wanted = rounds(50, 3);
  for (int i = 0; i < 40 * wanted && caught < wanted && !HasFailure(); ++i) {
    installation place;
    const std::string name = place.add_steady();
    place.save({place.entry(name)});
    place.start();
    stress::kill_running(place, name);
    EXPECT_TRUE(wait_until([&] { return stress::ends(place) == 1; }));
    const pid_t shell = stop_next_shell(place.daemon());
    place.signal(SIGUSR2);
    if (shell != 0) {
      ++caught;
      stress::sleep_ms(150);
      ::kill(shell, SIGCONT);
    }
    EXPECT_EQ(place.wait_end(), 0);
    EXPECT_TRUE(wait_until([&] { return place.running(name).empty(); }));
    EXPECT_TRUE(keeps([&] { return place.running(name).empty(); }));
  }
  EXPECT_GT(caught, 0) << "no program was met on its way";
}

TEST(shutdown, waits_for_a_fork_that_takes_long) {
  const int wanted = rounds(20, 1);
  int in_time = 0;
  for (int i = 0; i < 10 * wanted && in_time < wanted && !HasFailure(); ++i)
    in_time += shut_down_during_a_long_fork() ? 1 : 0;
  EXPECT_GT(in_time, 0) << "the machine is too busy";
}

TEST(shutdown, touches_nothing_that_is_gone_when_programs_end_at_the_last_moment) {
  for (int i = 0; i < rounds(100, 5) && !HasFailure(); ++i) {
    installation place;
    std::vector<listed_program> programs;
    for (int program = 0; program < 30; ++program) {
      programs.push_back(
          place.entry(place.add_script("trap '' USR2\n" + place.note_start() + place.stay())));
    }
    place.save(programs);
    place.start();
    std::vector<pid_t> pids;
    for (const listed_program& program : programs) {
      ASSERT_TRUE(wait_until([&] { return place.starts(program.name) == 1; }));
      pids.push_back(std::stoi(place.notes(program.name)[0]));
    }
    place.signal(SIGUSR2);
    kill_around_the_end_of_the_grace(place, pids);
    EXPECT_EQ(place.wait_end(), 0);
    EXPECT_TRUE(place.log().ends_with(golden::kClosed));
    EXPECT_FALSE(place.has("run.pid"));
    EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
  }
}

TEST(shutdown, deletes_nothing_that_a_thread_is_using) {
  for (int i = 0; i < rounds(20, 1) && !HasFailure(); ++i) {
    installation place;
    const slow_log log(place);
    std::vector<listed_program> programs;
    for (int program = 0; program < 10; ++program)
      programs.push_back(place.entry(place.add_steady()));
    place.save(programs);
    place.start();
    for (const listed_program& program : programs)
      place.wait_running(program.name);
    std::ignore = log.drain([] { return true; });
    log.fill();
    // Each monitor now has its program's end recorded, and the first of these lines hangs.
    for (const pid_t child : place.children())
      ::kill(child, SIGKILL);
    place.signal(SIGUSR2);
    const auto asked = std::chrono::steady_clock::now();
    // After its last stop command it gives what is being written a second.
    EXPECT_TRUE(wait_until([&] { return stress::stopped_names(place).size() == programs.size(); }));
    stress::sleep_ms(300);
    const bool has_ended = children::status_of(place.daemon()).has_value();
    const auto released = std::chrono::steady_clock::now();
    const std::string text =
        log.drain([&] { return children::status_of(place.daemon()).has_value(); });
    EXPECT_EQ(place.wait_end(), 0);
    EXPECT_FALSE(place.has("run.pid"));
    // What takes longer is given up, and the log with it.
    if (released - asked < std::chrono::milliseconds(900)) {
      EXPECT_FALSE(has_ended) << "it does not wait";
      EXPECT_EQ(count(text, "exited process PID: "), programs.size());
      EXPECT_TRUE(text.ends_with(golden::kClosed)) << text;
    }
  }
}

TEST(shutdown, leaves_no_liveness_file_of_a_program_that_was_to_be_started_again) {
  installation place;
  const std::string name = place.add_steady();
  place.start_with(name);
  place.save({place.entry(name, "stop")});
  EXPECT_TRUE(stress::reload(place));
  EXPECT_TRUE(wait_until([&] { return stress::ends(place) == 1; }));
  // Its monitor looks at the state once a second, and so does not get to it any more.
  place.save({place.entry(name)});
  place.signal(SIGUSR1);
  EXPECT_TRUE(wait_until([&] { return place.is_live(name); }));
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_EQ(stress::launches(place), stress::ends(place));
  EXPECT_FALSE(place.has("notify/" + name + ".dat"));
}

TEST(shutdown, takes_about_a_second_however_many_programs_ignore_it) {
  installation place;
  std::vector<listed_program> programs;
  for (int i = 0; i < 10; ++i) {
    programs.push_back(
        place.entry(place.add_script("trap '' USR2\n" + place.note_start() + place.stay())));
  }
  place.save(programs);
  place.start();
  for (const listed_program& program : programs)
    place.wait_running(program.name);
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  // Far below a second for each of them, and far above what the stop commands take.
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(7));
  EXPECT_TRUE(place.log().ends_with(golden::kClosed));
}
