#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e/support/children.h"
#include "tests/e2e/support/installation.h"
#include "tests/e2e/support/private_namespace.h"
#include "tests/stress/support/stress.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;
using stress::between;
using stress::rounds;

namespace {

/// A name is a pattern for processes and a part of a shell command. Here it may be anything, and
/// only the test's own processes must suffer.
class hostile : public testing::Test {
 protected:
  void SetUp() override {
    if (!private_namespace::is_inside()) GTEST_SKIP() << "hostile names need a PID namespace";
    // A pattern may match the tests themselves.
    ::signal(SIGUSR2, SIG_IGN);
  }
  void TearDown() override { ::signal(SIGUSR2, SIG_DFL); }
};

/// Runs the supervisor with a configuration up, through reloads, and down.
void expect_survived(installation& place, const std::string& text) {
  place.save(text);
  ASSERT_EQ(place.run(), 0);
  ASSERT_TRUE(wait_until([&] { return place.daemons().size() == 1; }));
  const pid_t daemon = place.daemons()[0];
  ASSERT_TRUE(wait_until(
      [&] { return process_table::count_watches(daemon) > 0 || children::status_of(daemon); },
      stress::patience()));
  const std::size_t loads = place.loads();
  ::kill(daemon, SIGUSR1);
  EXPECT_TRUE(wait_until([&] { return place.loads() > loads || children::status_of(daemon); },
                         stress::patience()));
  ::kill(daemon, SIGUSR2);
  ASSERT_EQ(children::wait_for_end(daemon, stress::patience()), 0);
  EXPECT_TRUE(place.log().ends_with(golden::kClosed));
  EXPECT_FALSE(place.has("run.pid"));
}

std::string random_bytes(std::mt19937& random, int length) {
  std::string text;
  for (int i = 0; i < length; ++i)
    text += static_cast<char>(between(random, 0, 255));
  return text;
}

template <std::size_t N>
std::string any_of(std::mt19937& random, const char* const (&choices)[N]) {
  return choices[between(random, 0, static_cast<int>(N) - 1)];
}

/// A name in which every special character of shells, file systems and regular expressions may
/// stand, and no command that does anything.
std::string random_name(std::mt19937& random) {
  static constexpr const char* kParts[] = {
      "true", "a",  "/",  "//",   " ",  "\t", "'",       "\"",  "$",    "$$",    "$(true)", "`",
      "*",    ".*", "[",  "]",    "[a", "^",  "+",       "\\",  "\\\\", "{9}",   "(",       ")",
      "|",    ";",  "&",  "<",    "~",  "%s", "%n%n%n",  "%",   "?",    "=",     "-",       "--",
      "-f",   "!",  "\b", "\xff", "ä",  "..", "$HOME/x", "svr", ",",    "\x7f@", "keelmond"};
  std::string name;
  for (int parts = between(random, 1, 12); parts > 0; --parts)
    name += any_of(random, kParts);
  if (between(random, 0, 5) == 0)
    name += std::string(static_cast<std::size_t>(between(random, 90, 700)), 'n');
  return name;
}

std::string random_count(std::mt19937& random) {
  static constexpr const char* kCounts[] = {"2147483647", "-1",  "99999999999", "20", "0x10",
                                            "20abc",      " 20", "+20",         "1e9"};
  return any_of(random, kCounts);
}

/// A configuration of the right shape with the wrong content.
std::string random_ini(std::mt19937& random, const std::string& program) {
  const std::string path_choices[] = {program,  program + " one two",  "/bin/true", "/bin", "",
                                      "%s%s%s", std::string(600, '/'), "/bin/true;"};
  std::string list = "[keelmond]\nlinux=" + random_count(random) + "\n";
  std::string sections;
  for (int i = 1; i <= 20; ++i) {
    const std::string name = random_name(random);
    list += "svr" + std::to_string(i) + "=" + name + "\n";
    sections += "[" + name + "]\nexepath=" + path_choices[between(random, 0, 7)] +
                "\nstate=" + (between(random, 0, 4) == 0 ? std::string(200, 's') : "run") + "\n";
    if (between(random, 0, 4) == 0) sections += random_bytes(random, 200);
  }
  return list + sections;
}

/// The path of a file below the installation that has exactly `length` bytes.
fs::path long_path(const installation& place, std::size_t length) {
  fs::path directory = place.site() / "programs";
  while (directory.string().size() + 202 < length)
    directory /= std::string(200, 'd');
  fs::create_directories(directory);
  return directory / std::string(length - directory.string().size() - 1, 'f');
}

long peak_memory(pid_t pid) {
  return stress::status_number(pid, "VmHWM");
}

}  // namespace

TEST_F(hostile, bytes_are_survived) {
  auto random = stress::random_numbers();
  for (int i = 0; i < rounds(200, 8) && !HasFailure(); ++i) {
    installation place;
    std::string text = random_bytes(random, between(random, 0, 60000));
    if (i % 2 == 0) text = "[keelmond]\nlinux=9\nsvr1=" + text;
    expect_survived(place, text);
  }
}

TEST_F(hostile, names_and_values_are_survived) {
  auto random = stress::random_numbers();
  for (int i = 0; i < rounds(200, 6) && !HasFailure(); ++i) {
    installation place;
    const std::string program = place.entry(place.add_steady()).exepath;
    const std::string text = random_ini(random, program);
    SCOPED_TRACE(text);
    expect_survived(place, text);
  }
}

TEST_F(hostile, counts_take_no_time) {
  for (const char* number : {"2147483647", "-1", "-2147483648", "99999999999", "", "many"}) {
    SCOPED_TRACE(number);
    installation place;
    const std::string name = place.add_steady();
    std::string text = server_ini({place.entry(name)});
    text.replace(text.find("linux=1"), 7, std::string("linux=") + number);
    place.save(text);
    // It waits 20 seconds for the watch, and a walk to that number takes minutes.
    ASSERT_NO_THROW(place.start());
    ASSERT_TRUE(stress::reload(place));
    if (std::string_view(number) == "2147483647") {
      place.wait_running(name);
      // A key that cannot be printed from a number is no entry.
      EXPECT_EQ(place.starts(name), 1U);
    }
    stress::expect_clean_end(place);
  }
}

TEST_F(hostile, lines_of_any_length_cost_memory_in_proportion) {
  const auto length = static_cast<std::size_t>(rounds(64, 8)) * 1024 * 1024 / stress::kSlower;
  for (const char* beginning :
       {"[keelmond]\nlinux=1\nsvr1=", "[", "; ", "x", "[keelmond]\nlinux="}) {
    SCOPED_TRACE(beginning);
    installation place;
    place.start();
    const long before = peak_memory(place.daemon());
    place.save(beginning + std::string(length, '7'));
    place.signal(SIGUSR1);
    EXPECT_TRUE(wait_until([&] { return place.loads() > 1; }, stress::patience()));
    place.signal(SIGUSR1);
    EXPECT_TRUE(wait_until([&] { return place.loads() > 2; }, stress::patience()));
    EXPECT_LE(peak_memory(place.daemon()) - before,
              static_cast<long>(length / 1024) * (stress::kSlower > 1 ? 40 : 10));
    stress::expect_clean_end(place);
  }
}

TEST_F(hostile, entries_by_the_hundred_thousand_are_read) {
  const int entries = rounds(200000, 20000) / stress::kSlower;
  std::string list = "[keelmond]\nlinux=" + std::to_string(entries) + "\n";
  std::string sections;
  for (int i = 1; i <= entries; ++i) {
    const std::string name = "entry" + std::to_string(i);
    list += "svr" + std::to_string(i) + "=" + name + "\n";
    sections += "[" + name + "]\nexepath=/bin/true\nstate=stop\n";
  }
  installation place;
  expect_survived(place, list + sections);
  EXPECT_EQ(count(place.console(), " stopped 333.\r\n"),
            static_cast<std::size_t>(entries) * place.loads());
}

TEST_F(hostile, commands_are_run_whole_or_not_at_all) {
  installation place;
  const std::string name = place.add_steady();
  const fs::path fits = long_path(place, 511);
  const std::string noting = "#!/bin/sh\necho $0 >> \"" + (place.site() / "run").string() + "\"\n";
  for (const fs::path& path :
       {fits, fs::path(fits.string() + "x"), fs::path(fits.string() + "xy")}) {
    write_file(path, noting + "exec sleep 1000\n");
    ::chmod(path.c_str(), 0700);
  }
  place.save({{"fitting", fits.string()},
              {"longer", fits.string() + "x"},
              {"long", fits.string() + "xy"},
              place.entry(name)});
  place.start();
  place.wait_running(name);
  const std::string only = fits.string() + "\n";
  EXPECT_TRUE(wait_until([&] { return place.read("run") == only; }));
  EXPECT_TRUE(stress::reload(place));
  EXPECT_EQ(place.read("run"), only);
  EXPECT_GE(count(place.log(), "refused: exepath is longer than 511 bytes"), 2U);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
}

TEST_F(hostile, names_are_used_whole_or_not_at_all) {
  installation place;
  const std::string program = place.entry(place.add_steady()).exepath;
  const std::string fits(127, 'n');
  // The sections of shortened names are there, too.
  std::string text = server_ini({{fits + "m", program}, {std::string(512, 'k'), program}});
  text += "[" + fits + "]\nexepath=" + program + "\nstate=run\n";
  text += "[" + std::string(511, 'k') + "]\nexepath=" + program + "\nstate=run\n";
  text += "[" + std::string(127, 'k') + "]\nexepath=" + program + "\nstate=run\n";
  place.save(text);
  place.start();
  EXPECT_TRUE(stress::reload(place));
  EXPECT_EQ(count(place.console(), " Start "), 0U);
  EXPECT_GE(count(place.log(), "refused: "), 2U);
  stress::expect_clean_end(place);

  installation other;
  other.save({{fits, other.entry(other.add_steady()).exepath, "run"},
              {"a" + fits.substr(1), "/bin/true", std::string(128, 's')}});
  other.start();
  EXPECT_TRUE(wait_until([&] { return stress::launches(other) == 1; }));
  EXPECT_EQ(count(other.log(), "refused: state is longer than 127 bytes"), 1U);
  EXPECT_EQ(other.shut_down_by(SIGUSR2), 0);
  EXPECT_EQ(stress::stopped_names(other), std::vector<std::string>{fits});
}

TEST_F(hostile, values_with_a_nul_byte_are_refused) {
  installation place;
  const std::string name = place.add_steady();
  const listed_program entry = place.entry(name);
  std::string text = "[keelmond]\nlinux=3\nsvr1=one\nsvr2=two\nsvr3=";
  text += name + '\0' + "more\n[one]\nstate=run\nexepath=" + entry.exepath;
  text += std::string("\0; true", 7) + "\n[two]\nexepath=" + entry.exepath + "\nstate=run";
  text += std::string("\0ning", 5) + "\n[" + name + "]\nexepath=" + entry.exepath + "\nstate=run\n";
  place.save(text);
  place.start();
  EXPECT_EQ(place.starts(name), 0U);
  EXPECT_EQ(count(place.log(), "refused: "), 3U);
  stress::expect_clean_end(place);
}

TEST_F(hostile, working_directories_with_conversions_are_printed_and_nothing_more) {
  for (const char* site :
       {"%s%s%s%s%s%s%s%s", "%n%n%n%n%n%n", "%1000000000d", "%%%", "%*.*s%hhn"}) {
    SCOPED_TRACE(site);
    installation place(site);
    const std::string name = place.add_steady();
    place.start_with(name);
    EXPECT_LT(place.console().size(), 4096U);
    stress::expect_clean_end(place);
  }
}

TEST_F(hostile, working_directories_that_are_too_long_start_nothing) {
  for (const std::size_t length : {255U, 400U, 505U, 520U, 1100U}) {
    SCOPED_TRACE(length);
    installation place;
    const std::string name = place.add_steady();
    const fs::path deep = long_path(place, length);
    fs::create_directories(deep / "config");
    fs::copy_file(place.site() / "config" / "server.ini", deep / "config" / "server.ini");
    EXPECT_EQ(place.run({.before_exec =
                             [&deep] {
                               if (::chdir(deep.c_str()) != 0) ::_exit(123);
                             }}),
              0);
    EXPECT_TRUE(wait_until([&] { return place.processes().empty(); }));
    EXPECT_EQ(count(place.errors(), "Nothing was started."), 1U) << place.errors();
    EXPECT_FALSE(fs::exists(deep / "run.pid"));
    EXPECT_FALSE(fs::exists(deep / "keelmond.log"));
  }
}
