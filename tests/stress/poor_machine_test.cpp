#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/e2e/support/children.h"
#include "tests/e2e/support/installation.h"
#include "tests/stress/support/small_disk.h"
#include "tests/stress/support/stress.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;
using stress::rounds;

namespace {

constexpr char kForkFails[] = "fork() error.errno:11 error:Resource temporarily unavailable\n";

void restart(const installation& place, const std::string& name, std::size_t starts) {
  for (const pid_t pid : place.running(name))
    ::kill(pid, SIGKILL);
  place.wait_running(name, starts);
}

/// A configuration that takes a moment to load before it comes to the program.
std::vector<listed_program> late(const listed_program& program) {
  std::vector<listed_program> list;
  for (int i = 0; i < 20000; ++i)
    list.push_back({"missing" + std::to_string(i), "/nonexistent/program", "run"});
  list.push_back(program);
  return list;
}

}  // namespace

TEST(poor_machine, may_have_a_full_disk) {
  installation place;
  const std::string name = place.add_steady();
  const std::string other = place.add_steady();
  const stress::small_disk disk(place, "size=256k");
  if (!disk.mounted()) GTEST_SKIP() << "no file system can be mounted here";
  place.save({place.entry(name), place.entry(other, "stop")});
  place.start();
  place.wait_running(name);
  EXPECT_TRUE(wait_until([&] { return stress::launches(place) == 1; }));
  disk.fill();
  std::size_t starts = 1;
  for (int i = 0; i < rounds(100, 5); ++i) {
    restart(place, name, ++starts);
    EXPECT_TRUE(stress::reload(place));
  }
  const std::size_t logged = stress::launches(place);
  disk.make_room();
  place.save({place.entry(name), place.entry(other)});
  EXPECT_TRUE(stress::reload(place));
  place.wait_running(other);
  restart(place, name, ++starts);
  EXPECT_TRUE(wait_until([&] { return stress::launches(place) >= logged + 2; }));
  EXPECT_TRUE(place.is_live(name));
  stress::expect_clean_end(place);
}

TEST(poor_machine, may_have_a_full_disk_at_the_start) {
  installation place;
  const std::string name = place.add_steady();
  const stress::small_disk disk(place, "size=256k");
  if (!disk.mounted()) GTEST_SKIP() << "no file system can be mounted here";
  place.save({place.entry(name)});
  disk.fill();
  place.start();
  place.wait_running(name);
  EXPECT_EQ(place.log(), "");
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
  EXPECT_FALSE(place.has("run.pid"));
}

TEST(poor_machine, may_have_no_room_for_the_pid_file) {
  installation place;
  const std::string name = place.add_steady();
  const stress::small_disk disk(place, "size=256k,nr_inodes=40");
  if (!disk.mounted()) GTEST_SKIP() << "no file system can be mounted here";
  place.save({place.entry(name)});
  disk.fill_with_files();
  EXPECT_EQ(place.run(), 0);
  EXPECT_TRUE(wait_until([&] {
    return place.console().ends_with("\ng_sys_daemon init_daemon \r\n") &&
           place.processes().empty();
  }));
  EXPECT_EQ(place.starts(name), 0U);
  disk.make_room();
  place.start();
  place.wait_running(name);
  stress::expect_clean_end(place);
}

TEST(poor_machine, may_have_a_log_that_cannot_be_opened) {
  installation place;
  fs::create_directory(place.site() / "keelmond.log");
  std::vector<listed_program> programs;
  for (int i = 0; i < 3; ++i)
    programs.push_back(place.entry(place.add_steady()));
  programs.push_back(place.entry(place.add_script("exit 0\n")));
  place.save(programs);
  place.start();
  for (std::size_t i = 0; i < 3; ++i)
    place.wait_running(programs[i].name);
  for (int i = 0; i < rounds(100, 5); ++i) {
    EXPECT_TRUE(stress::reload(place));
    restart(place, programs[0].name, static_cast<std::size_t>(i) + 2);
  }
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
  EXPECT_FALSE(place.has("run.pid"));
}

TEST(poor_machine, may_have_no_notify_directory) {
  for (const bool a_file : {false, true}) {
    installation place;
    fs::remove(place.site() / "notify");
    if (a_file) write_file(place.site() / "notify", "");
    const std::string name = place.add_steady();
    place.start_with(name);
    EXPECT_TRUE(stress::reload(place));
    restart(place, name, 2);
    fs::remove(place.site() / "notify");
    fs::create_directory(place.site() / "notify");
    restart(place, name, 3);
    EXPECT_TRUE(wait_until([&] { return place.is_live(name); }));
    stress::expect_clean_end(place);
  }
}

TEST(poor_machine, may_have_no_process_to_spare_for_a_while) {
  installation place;
  const std::string name = place.add_steady();
  const std::string other = place.add_steady();
  place.save({place.entry(name), place.entry(other)});
  place.start(stress::by_ordinary_user(place));
  place.wait_running(name);
  place.wait_running(other);
  std::size_t starts = 1;
  for (int i = 0; i < rounds(20, 2); ++i) {
    const std::size_t before = count(place.console(), kForkFails);
    stress::limit(place.daemon(), RLIMIT_NPROC, 1);
    for (const pid_t pid : place.running(name))
      ::kill(pid, SIGKILL);
    EXPECT_TRUE(wait_until([&] { return count(place.console(), kForkFails) > before; }));
    EXPECT_TRUE(stress::reload(place));
    EXPECT_TRUE(place.running(name).empty());
    EXPECT_EQ(place.running(other).size(), 1U);
    stress::unlimit(place.daemon(), RLIMIT_NPROC);
    place.wait_running(name, ++starts);
  }
  stress::expect_clean_end(place);
  EXPECT_EQ(stress::launches(place), stress::ends(place));
}

TEST(poor_machine, ends_its_programs_without_a_process_for_the_stop_command) {
  installation place;
  std::vector<listed_program> listed;
  for (int i = 0; i < 10; ++i)
    listed.push_back(place.entry(place.add_steady()));
  place.save(listed);
  place.start(stress::by_ordinary_user(place, stress::without_leak_check()));
  std::vector<pid_t> programs;
  for (const listed_program& one : listed)
    programs.push_back(place.wait_running(one.name));
  stress::limit(place.daemon(), RLIMIT_NPROC, 1);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  EXPECT_TRUE(place.log().ends_with(golden::kClosed));
  EXPECT_FALSE(place.has("run.pid"));
  for (const pid_t program : programs)
    EXPECT_TRUE(wait_until([&] { return !process_table::is_alive(program); }));
  EXPECT_EQ(count(place.console(), "`, -1 \r\n"), programs.size());
}

TEST(poor_machine, starts_the_monitor_that_got_no_thread_with_the_next_reload) {
  installation place;
  const std::string name = place.add_steady();
  const std::string late_one = place.add_steady();
  place.save({place.entry(name)});
  place.start(stress::by_ordinary_user(place));
  place.wait_running(name);
  stress::limit(place.daemon(), RLIMIT_NPROC, 1);
  const std::string text = server_ini({place.entry(name), place.entry(late_one)});
  stress::save_for_user(place, text);
  EXPECT_TRUE(stress::reload(place));
  EXPECT_TRUE(stress::reload(place));
  EXPECT_EQ(count(place.console(), "monitor " + late_one + " Start 333.\r\n"), 1U);
  EXPECT_EQ(place.starts(late_one), 0U);
  stress::unlimit(place.daemon(), RLIMIT_NPROC);
  EXPECT_TRUE(stress::reload(place));
  place.wait_running(late_one);
  EXPECT_TRUE(stress::settles(place, {name, late_one}, {name, late_one}));
  stress::expect_clean_end(place);
}

TEST(poor_machine, watches_the_configuration_without_a_thread_for_it) {
  installation place;
  const std::string name = place.add_steady();
  const std::string text = server_ini(late(place.entry(name)));
  place.save(text);
  EXPECT_EQ(place.run(stress::by_ordinary_user(place)), 0);
  ASSERT_TRUE(wait_until([&] { return place.console().find("read ini") != std::string::npos; }));
  const pid_t daemon = place.daemons().at(0);
  stress::limit(daemon, RLIMIT_NPROC, 1);
  ASSERT_EQ(place.console().find(name), std::string::npos) << "the load was over too early";
  ASSERT_TRUE(wait_until([&] { return process_table::count_watches(daemon) == 1; }));
#ifndef KEELMOND_SANITIZED
  EXPECT_EQ(stress::status_number(daemon, "Threads"), 3)
      << "with the one that forks, and the one that records";
#endif
  stress::unlimit(daemon, RLIMIT_NPROC);
  ::kill(daemon, SIGUSR1);
  place.wait_running(name);
  ::kill(daemon, SIGUSR2);
  EXPECT_EQ(children::wait_for_end(daemon), 0);
  EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
}

TEST(poor_machine, may_have_no_descriptors_for_a_while) {
  installation place;
  const std::string name = place.add_steady();
  const std::string other = place.add_steady();
  const pid_t untouched = place.start_with({name, other}).back();
  for (int i = 0; i < rounds(20, 2); ++i) {
    stress::limit(place.daemon(), RLIMIT_NOFILE, 3);
    const std::size_t before = stress::launches(place);
    for (const pid_t pid : place.running(name))
      ::kill(pid, SIGKILL);
    // It is started as ever, but has no descriptors either.
    EXPECT_TRUE(wait_until([&] { return stress::launches(place) > before + 3; }));
    EXPECT_TRUE(stress::reload(place));
    EXPECT_EQ(place.running(other), std::vector<pid_t>{untouched});
    stress::unlimit(place.daemon(), RLIMIT_NOFILE);
    EXPECT_TRUE(stress::settles(place, {name, other}, {name, other}));
    EXPECT_TRUE(stress::reload(place));
  }
  stress::expect_clean_end(place);
}

TEST(poor_machine, ends_in_order_without_a_descriptor_for_the_watch) {
  installation place;
  place.save(std::vector<listed_program>{});
  place.start(stress::fast(stress::without_leak_check()));
  stress::limit(place.daemon(), RLIMIT_NOFILE, 3);
  place.save(std::vector<listed_program>{});
  EXPECT_EQ(place.wait_end(), 0);
  EXPECT_TRUE(place.errors().starts_with("inotify_init: Too many open files\nkeelmond: "))
      << place.errors();
  EXPECT_TRUE(place.log().ends_with(golden::kClosed));
  EXPECT_EQ(place.read("run.pid"), std::to_string(place.daemon()));
}

#ifndef KEELMOND_SANITIZED
TEST(poor_machine, may_have_no_memory_for_a_while) {
  installation place;
  const std::string name = place.add_steady();
  const std::string other = place.add_steady();
  std::string text = server_ini({place.entry(name), place.entry(other)});
  place.start_with(name);
  // While nothing is being loaded.
  const auto used = static_cast<rlim_t>(stress::status_number(place.daemon(), "VmSize"));
  text += "more=" + std::string(16U * 1024 * 1024, 'x') + "\n";
  for (int i = 0; i < rounds(20, 2); ++i) {
    stress::limit(place.daemon(), RLIMIT_AS, used * 1024);
    place.save(text);
    const std::size_t failures = count(place.errors(), "loadServerConfig: std::bad_alloc\n");
    place.signal(SIGUSR1);
    EXPECT_TRUE(wait_until(
        [&] { return count(place.errors(), "loadServerConfig: std::bad_alloc\n") > failures; }));
    for (const pid_t pid : place.running(name))
      ::kill(pid, SIGKILL);
    stress::sleep_ms(50);
    stress::unlimit(place.daemon(), RLIMIT_AS);
    EXPECT_TRUE(stress::reload(place));
    EXPECT_TRUE(stress::settles(place, {name, other}, {name, other}));
  }
  stress::expect_clean_end(place);
}
#endif
