#include "process/server_config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/log/log_file.h"
#include "tests/process/imagined_programs.h"
#include "tests/process/supervision.h"
#include "tests/support/captured_output.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/log_text.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/server_ini.h"
#include "tests/support/wait_until.h"

namespace {

constexpr char kFirstLine[] = "loadServerConfig : server.ini\r\n";

/// One program of a configuration. A name of one character would open no section.
struct program {
  std::string name;
  std::string state;
  std::string exepath = "/bin/true";
};

std::string configuration(const std::vector<program>& programs) {
  std::vector<listed_program> listed;
  for (const program& each : programs)
    listed.push_back({each.name, each.exepath, each.state});
  return server_ini(listed);
}

/// Loads configurations in an empty directory without anything being run: no thread can be created,
/// so that a monitor that is started stays as it was, and no process for a stop command.
class server_config : public testing::Test {
 protected:
  server_config() {
    faults.pthread_create = [this](auto...) {
      ++starts_;
      return EAGAIN;
    };
    faults.fork = [] { return -1; };
    std::filesystem::create_directory("notify");
    EXPECT_TRUE(log_.create_log_file("a.log", false));
    g_logFile = &log_;
  }
  ~server_config() override {
    g_logFile = nullptr;
    for (const Tfun_monitor* monitor : monitor_list)
      delete monitor;
    monitor_list.clear();
  }

  /// Loads `text` and returns what is printed after the first line.
  std::string load(const std::string& text) {
    write_file("server.ini", text);
    const captured_output output;
    loadServerConfig("server.ini");
    const std::string printed = output.text();
    EXPECT_EQ(printed.substr(0, sizeof kFirstLine - 1), kFirstLine);
    return printed.substr(std::min(printed.size(), sizeof kFirstLine - 1));
  }
  std::string load(const std::vector<program>& programs) { return load(configuration(programs)); }

  static std::vector<std::string> names() {
    std::vector<std::string> all;
    for (const Tfun_monitor* monitor : monitor_list)
      all.emplace_back(monitor->program_name());
    return all;
  }
  static std::string log() { return with_times_masked(read_file("a.log")); }
  static bool alive(const std::string& name) { return exists("notify/" + name + ".dat"); }

  scratch_dir scratch_;
  working_dir inside_{scratch_.path()};
  no_faults_afterwards clean_up_;
  Tlog_file log_;
  int starts_ = 0;
};

using strings = std::vector<std::string>;

TEST_F(server_config, a_missing_file_changes_nothing) {
  const captured_output output;
  loadServerConfig("./config/server.ini");
  EXPECT_EQ(output.text(), "loadServerConfig : ./config/server.ini\r\n");
  EXPECT_EQ(names(), strings());
  EXPECT_EQ(log(), "");
}

TEST_F(server_config, a_null_path_is_a_logic_error) {
  const captured_output output;
  EXPECT_THROW(loadServerConfig(nullptr), std::logic_error);
  EXPECT_EQ(output.text(), "loadServerConfig : (null)\r\n") << "the line comes first";
}

TEST_F(server_config, without_a_positive_number_of_entries_nothing_is_read) {
  const std::string rest = "svr1=aa\n[aa]\nexepath=/bin/true\nstate=run\n";
  EXPECT_EQ(load("[keelmond]\n" + rest), "");
  for (const char* number : {"0", "-1", "-2147483648", "many", ""})
    EXPECT_EQ(load("[keelmond]\nlinux=" + std::string(number) + "\n" + rest), "") << number;
  EXPECT_EQ(load("linux=1\n" + rest), "") << "no section";
  EXPECT_EQ(load("[Keelmond]\nlinux=1\n" + rest), "") << "another section";
  EXPECT_EQ(names(), strings());
}

TEST_F(server_config, a_file_that_cannot_be_written_counts_as_empty) {
  const std::string text = configuration({{"aa", "run"}});
  in_child([&] {
    write_file("server.ini", text);
    ASSERT_EQ(::chmod("server.ini", 0444), 0);
    ASSERT_EQ(::chmod(".", 0755), 0);
    if (::geteuid() == 0) {
      ASSERT_EQ(::setresuid(65534, 65534, 65534), 0);
    }
    const captured_output output;
    loadServerConfig("server.ini");
    EXPECT_EQ(output.text(), kFirstLine);
    EXPECT_TRUE(monitor_list.empty());
  });
}

TEST_F(server_config, a_missing_entry_is_skipped_and_the_next_one_is_read) {
  EXPECT_EQ(load("[keelmond]\nlinux=3\nsvr3=cc\nsvr1=aa\n"
                 "[aa]\nexepath=/bin/true\nstate=run\n[cc]\nexepath=/bin/true\nstate=run\n"),
            golden::read_entry("aa") + "monitor aa Start 333.\r\n" + golden::read_entry("cc") +
                "monitor cc Start 333.\r\n");
  EXPECT_EQ(names(), (strings{"aa", "cc"})) << "in the order of the numbers, not of the file";
}

TEST_F(server_config, an_empty_entry_is_skipped_and_the_next_one_is_read) {
  EXPECT_EQ(load("[keelmond]\nlinux=2\nsvr1=\nsvr2=bb\n[bb]\nexepath=/bin/true\nstate=run\n"),
            golden::read_entry("bb") + "monitor bb Start 333.\r\n");
}

TEST_F(server_config, entries_are_read_in_the_order_of_their_numbers) {
  std::vector<program> programs;
  strings expected;
  for (int i = 1; i <= 12; ++i) {
    programs.push_back({"p" + std::to_string(i), "run"});
    expected.push_back(programs.back().name);
  }
  load(programs);
  EXPECT_EQ(names(), expected) << "10 comes after 9";
}

TEST_F(server_config, numbers_beyond_the_count_are_not_read) {
  std::string text = configuration({{"aa", "run"}, {"bb", "run"}});
  text.replace(text.find("linux=2"), 7, "linux=1");
  EXPECT_EQ(load(text), golden::read_entry("aa") + "monitor aa Start 333.\r\n");
}

TEST_F(server_config, other_keys_are_ignored) {
  EXPECT_EQ(load("[keelmond]\nlinux=9\nsvr=aa\nsvr0=aa\nsvr01=aa\nsvr+1=aa\nsvr1x=aa\nsvr-1=aa\n"
                 "SVR1=aa\nsvr 1=aa\nxsvr1=aa\nsvr99999999999=aa\nserver1=aa\n"
                 "[aa]\nexepath=/bin/true\nstate=run\n"),
            "");
}

TEST_F(server_config, a_huge_count_costs_nothing) {
  EXPECT_EQ(load("[keelmond]\nlinux=2147483647\nsvr2147483647=aa\n"
                 "[aa]\nexepath=/bin/true\nstate=run\n"),
            golden::read_entry("aa") + "monitor aa Start 333.\r\n");
}

TEST_F(server_config, the_section_of_a_program_is_found_by_its_name) {
  EXPECT_EQ(load("[keelmond]\nlinux=1\nsvr1=aa\n[bb]\nexepath=/bin/true\nstate=run\n"),
            golden::read_entry("aa"))
      << "no section, and no file of that name";
  EXPECT_EQ(names(), strings());
}

// What becomes of an entry, by its monitor and its state.

TEST_F(server_config, unknown_and_run_creates_a_monitor_and_starts_it) {
  EXPECT_EQ(load({{"aa", "run"}}), golden::read_entry("aa") + "monitor aa Start 333.\r\n");
  EXPECT_EQ(names(), strings{"aa"});
  EXPECT_EQ(starts_, 1);
  EXPECT_EQ(read_file("notify/aa.dat"), "1");
  EXPECT_EQ(log(), "");
}

TEST_F(server_config, unknown_and_stop_only_removes_the_liveness_file_on_every_load) {
  for (int i = 0; i < 2; ++i) {
    write_file("notify/aa.dat", "1");
    EXPECT_EQ(load({{"aa", "stop"}}), golden::read_entry("aa") + "monitor aa stopped 333.\r\n");
    EXPECT_FALSE(alive("aa"));
  }
  EXPECT_EQ(names(), strings());
  EXPECT_EQ(starts_, 0);
}

TEST_F(server_config, unknown_and_any_other_state_does_nothing) {
  write_file("notify/aa.dat", "kept");
  for (const char* state : {"", "Run", "RUN", "runs", "ru", "Stop", "stopped", "pause"})
    EXPECT_EQ(load({{"aa", state}}), golden::read_entry("aa")) << state;
  EXPECT_EQ(names(), strings());
  EXPECT_EQ(read_file("notify/aa.dat"), "kept");
}

TEST_F(server_config, known_and_run_starts_a_monitor_that_never_had_a_program) {
  load({{"aa", "run"}});
  std::filesystem::remove("notify/aa.dat");
  EXPECT_EQ(load({{"aa", "run"}}),
            golden::read_entry("aa") + "monitor aa Start 11.\r\nmonitor aa Start 22.\r\n");
  EXPECT_EQ(names(), strings{"aa"});
  EXPECT_EQ(starts_, 2);
  EXPECT_EQ(read_file("notify/aa.dat"), "1");
}

TEST_F(server_config, known_and_stop_runs_the_stop_command_and_removes_the_liveness_file) {
  load({{"aa", "run"}});
  EXPECT_TRUE(alive("aa"));
  EXPECT_EQ(load({{"aa", "stop"}}),
            golden::read_entry("aa") +
                "monitor aa stopped.\r\nkill -USR2 result: kill -USR2 `pgrep aa`, -1 \r\n");
  EXPECT_EQ(names(), strings{"aa"});
  EXPECT_EQ(starts_, 1);
  EXPECT_FALSE(alive("aa"));
}

TEST_F(server_config, known_and_any_other_state_says_and_does_nothing_more) {
  load({{"aa", "run"}});
  write_file("notify/aa.dat", "kept");
  for (const char* state : {"", "Run", "pause"})
    EXPECT_EQ(load({{"aa", state}}), golden::read_entry("aa")) << state;
  EXPECT_EQ(starts_, 1);
  EXPECT_EQ(read_file("notify/aa.dat"), "kept");
}

TEST_F(server_config, names_are_compared_exactly) {
  load({{"aa", "run"}});
  EXPECT_EQ(load({{"AA", "stop"}, {"aaa", "stop"}}),
            golden::read_entry("AA") + "monitor AA stopped 333.\r\n" + golden::read_entry("aaa") +
                "monitor aaa stopped 333.\r\n");
}

TEST_F(server_config, a_program_listed_twice_is_handled_twice) {
  const std::string text =
      "[keelmond]\nlinux=2\nsvr1=aa\nsvr2=aa\n[aa]\nexepath=/bin/true\nstate=run\n";
  EXPECT_EQ(load(text), golden::read_entry("aa") + "monitor aa Start 333.\r\n" +
                            golden::read_entry("aa") +
                            "monitor aa Start 11.\r\nmonitor aa Start 22.\r\n");
  EXPECT_EQ(names(), strings{"aa"});
}

TEST_F(server_config, the_first_of_two_monitors_with_one_name_is_the_one) {
  auto* first = new Tfun_monitor("/bin/true", "aa", "stop");
  auto* second = new Tfun_monitor("/bin/true", "aa", "stop");
  monitor_list = {first, second};
  faults.pthread_create = [&](pthread_t*, const pthread_attr_t*, void* (*)(void*), void* object) {
    EXPECT_EQ(object, static_cast<Tsys_thread*>(first));
    return EAGAIN;
  };
  load({{"aa", "run"}});
}

TEST_F(server_config, a_program_that_the_file_no_longer_names_keeps_its_monitor) {
  load({{"aa", "run"}, {"bb", "run"}});
  EXPECT_EQ(load({{"bb", "run"}}),
            golden::read_entry("bb") + "monitor bb Start 11.\r\nmonitor bb Start 22.\r\n");
  EXPECT_EQ(names(), (strings{"aa", "bb"}));
  EXPECT_TRUE(alive("aa"));
  EXPECT_EQ(load(""), "");
  EXPECT_EQ(names(), (strings{"aa", "bb"}));
}

// The program's file.

TEST_F(server_config, a_missing_program_is_skipped_without_a_word) {
  EXPECT_EQ(load({{"aa", "run", "/nowhere/a"}, {"bb", "run"}}),
            golden::read_entry("aa") + golden::read_entry("bb") + "monitor bb Start 333.\r\n");
  EXPECT_EQ(names(), strings{"bb"});
  EXPECT_EQ(log(), "");
}

TEST_F(server_config, a_program_that_is_gone_is_skipped_although_it_has_a_monitor) {
  const std::string path = write_program("tool", "");
  load({{"aa", "run", path}});
  std::filesystem::remove(path);
  EXPECT_EQ(load({{"aa", "stop", path}}), golden::read_entry("aa"));
  EXPECT_TRUE(alive("aa"));
}

TEST_F(server_config, a_program_that_may_not_be_executed_is_skipped_with_a_line_in_the_log) {
  const std::string path = scratch_.file("tool");
  write_file(path, "");
  EXPECT_EQ(load({{"aa", "run", path}, {"bb", "run"}}),
            golden::read_entry("aa") + golden::read_entry("bb") + "monitor bb Start 333.\r\n");
  EXPECT_EQ(log(), "access(X_OK) .errno:13 error:Permission denied (" + path + ")\n<time>\r\n");
  EXPECT_EQ(names(), strings{"bb"});
  EXPECT_FALSE(alive("aa"));
}

TEST_F(server_config, a_command_with_arguments_is_no_file) {
  EXPECT_EQ(load({{"aa", "run", "/bin/true -x"}}), golden::read_entry("aa"));
}

TEST_F(server_config, without_exepath_the_file_of_that_name_in_the_directory_is_meant) {
  write_program("tool", "");
  EXPECT_EQ(
      load({{"tool", "run", ""}, {"none", "run", ""}}),
      golden::read_entry("tool") + "monitor tool Start 333.\r\n" + golden::read_entry("none"));
  EXPECT_EQ(names(), strings{"tool"});
  write_file("plain", "");
  load({{"plain", "run", ""}});
  EXPECT_EQ(log(), "access(X_OK) .errno:13 error:Permission denied (" + scratch_.file("plain") +
                       ")\n<time>\r\n");
}

// What does not fit.

std::string refusal(int number, const std::string& name, const std::string& key, int limit) {
  return "server.ini: entry svr" + std::to_string(number) + " (" + name + ") refused: " + key +
         " is longer than " + std::to_string(limit) + " bytes or holds a NUL byte.\r\n<time>\r\n";
}

TEST_F(server_config, a_name_of_127_bytes_is_taken_and_a_longer_one_refused) {
  const std::string longest(127, 'n');
  EXPECT_EQ(load({{longest + "n", "run"}, {longest, "run"}}),
            golden::read_entry(longest) + "monitor " + longest + " Start 333.\r\n");
  EXPECT_EQ(names(), strings{longest});
  EXPECT_EQ(log(), refusal(1, "", "svr1", 127));
}

TEST_F(server_config, an_exepath_of_511_bytes_is_taken_and_a_longer_one_refused) {
  const std::string file = write_program("tool", "");
  const std::string slashes(511 - file.size(), '/');
  const std::string longest = slashes + file;
  EXPECT_EQ(load({{"aa", "run", "/" + longest}, {"bb", "run", longest}}),
            golden::read_entry("aa") + golden::read_entry("bb") + "monitor bb Start 333.\r\n");
  EXPECT_EQ(log(), refusal(1, "aa", "exepath", 511));
}

TEST_F(server_config, a_state_of_127_bytes_is_taken_and_a_longer_one_refused) {
  load({{"aa", "run"}});
  const std::string longest(127, 's');
  EXPECT_EQ(load({{"aa", longest}}), golden::read_entry("aa"));
  EXPECT_EQ(log(), "");
  EXPECT_EQ(load({{"aa", longest + "s"}}), golden::read_entry("aa"));
  EXPECT_EQ(log(), refusal(1, "aa", "state", 127));
}

TEST_F(server_config, a_nul_byte_has_the_entry_refused) {
  using namespace std::string_literals;
  EXPECT_EQ(load({{"aa", "run\0"s, "/bin/true"}, {"bb", "run", "/bin/true\0x"s}}),
            golden::read_entry("aa") + golden::read_entry("bb"));
  EXPECT_EQ(log(), refusal(1, "aa", "state", 127) + refusal(2, "bb", "exepath", 511));
  EXPECT_EQ(names(), strings());
}

TEST_F(server_config, a_default_path_that_does_not_fit_has_the_entry_refused) {
  std::string deep = scratch_.path();
  while (deep.size() < 450) {
    deep += "/" + std::string(60, 'd');
    std::filesystem::create_directory(deep);
  }
  const working_dir there(deep);
  const std::string name(512 - deep.size() - 1 - 1, 'n');
  write_program(name, "");
  EXPECT_EQ(load({{name + "n", "run", ""}, {name, "run", ""}}),
            golden::read_entry(name + "n") + golden::read_entry(name) + "monitor " + name +
                " Start 333.\r\n");
  EXPECT_EQ(with_times_masked(scratch_.read("a.log")), refusal(1, name + "n", "exepath", 511));
}

TEST_F(server_config, without_a_log_a_refusal_is_silent) {
  g_logFile = nullptr;
  EXPECT_EQ(load({{std::string(128, 'n'), "run"}}), "");
  EXPECT_EQ(log(), "");
}

// With monitors that run.

TEST(server_config_running, run_stop_run_keeps_the_monitor_and_says_start_11_only) {
  in_child([] {
    const supervision& world = supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    faults.pipe2 = without_pipes;  // no stop command is run
    const auto load = [&](const char* state) {
      write_file("server.ini", configuration({{"aa", state}}));
      const std::size_t before = world.printed().size();
      loadServerConfig("server.ini");
      return world.printed().substr(before + sizeof kFirstLine - 1);
    };
    EXPECT_EQ(load("run"), golden::read_entry("aa") + "monitor aa Start 333.\r\n");
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    const Tfun_monitor* const monitor = monitor_list.at(0);

    EXPECT_EQ(load("stop"),
              golden::read_entry("aa") +
                  "monitor aa stopped.\r\nkill -USR2 result: kill -USR2 `pgrep aa`, -1 \r\n");
    EXPECT_FALSE(exists("notify/aa.dat"));
    programs.end_one();
    ASSERT_TRUE(wait_until([&] { return programs.sleeps > 0; }));

    EXPECT_EQ(load("run"), golden::read_entry("aa") + "monitor aa Start 11.\r\n");
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(2); }));
    EXPECT_EQ(monitor_list, std::vector{const_cast<Tfun_monitor*>(monitor)});
    EXPECT_EQ(read_file("notify/aa.dat"), "1");
  });
}

TEST(server_config_running, the_state_is_updated_before_the_stop_command_runs) {
  in_child([] {
    const supervision& world = supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    write_file("server.ini", configuration({{"aa", "run"}}));
    loadServerConfig("server.ini");
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    // The program ends while the stop command runs.
    faults.pipe2 = [&](auto...) {
      programs.end_one();
      EXPECT_TRUE(wait_until([&] { return programs.sleeps > 0 || programs.forks > 1; }));
      return -1;
    };
    write_file("server.ini", configuration({{"aa", "stop"}}));
    loadServerConfig("server.ini");
    EXPECT_EQ(programs.forks, 1);
    EXPECT_EQ(world.log(), launched(5000000) + exited("5000000", 0));
  });
}

TEST(server_config_running, a_new_exepath_has_no_effect_on_a_running_program) {
  in_child([] {
    supervision::begin();
    const std::string name = unique_name();
    const std::string first = write_program(name, "echo first >> runs; sleep 60\n");
    const std::string second = write_program(name + "2", "echo second >> runs; sleep 60\n");
    write_file("server.ini", configuration({{name, "run", first}}));
    loadServerConfig("server.ini");
    ASSERT_TRUE(wait_until([] { return read_file("runs") == "first\n"; }));
    write_file("server.ini", configuration({{name, "run", second}}));
    loadServerConfig("server.ini");
    // Ends it and lets it be started again.
    monitor_list.at(0)->stop_process();
    ASSERT_TRUE(wait_until([] { return read_file("runs").size() > 6; }));
    EXPECT_EQ(read_file("runs"), "first\nfirst\n");
  });
}

TEST(server_config_running,
     a_monitor_whose_thread_could_not_be_created_is_started_by_the_next_load) {
  in_child([] {
    const supervision& world = supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    write_file("server.ini", configuration({{"aa", "run"}}));
    faults.pthread_create = [](auto...) { return EAGAIN; };
    loadServerConfig("server.ini");
    EXPECT_EQ(programs.forks, 0);
    faults.pthread_create = nullptr;
    const std::size_t before = world.printed().size();
    loadServerConfig("server.ini");
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    EXPECT_EQ(
        world.printed().substr(before),
        kFirstLine + golden::read_entry("aa") + "monitor aa Start 11.\r\nmonitor aa Start 22.\r\n");
  });
}

TEST(server_config_running, a_load_that_changes_nothing_does_not_disturb_a_program) {
  in_child([] {
    const supervision& world = supervision::begin();
    imagined_programs& programs = imagined_programs::begin();
    write_file("server.ini", configuration({{"aa", "run"}}));
    for (int i = 0; i < 20; ++i)
      loadServerConfig("server.ini");
    ASSERT_TRUE(wait_until([&] { return programs.is_waiting(1); }));
    loadServerConfig("server.ini");
    EXPECT_EQ(programs.forks, 1);
    EXPECT_EQ(programs.sleeps, 0);
    EXPECT_EQ(world.log(), launched(5000000));
    EXPECT_EQ(monitor_list.size(), 1U);
  });
}

}  // namespace
