#include "control/check/check_config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "control/config/config_bytes.h"
#include "tests/support/scratch_dir.h"

using control::finding;
using control::ini_document;
using control::listed_program;
using control::process;
using control::process_table;
using control::running_program;
using control::snapshot;

namespace {

/// A directory with two programs, kmd_web and kmd_db, in which a text is checked.
class checked_text {
 public:
  checked_text() {
    std::filesystem::create_directory(scratch_.path() / "notify");
    for (const char* const name : {"kmd_web", "kmd_db"}) {
      scratch_.write(name, "#!/bin/sh\n");
      ::chmod(scratch_.file(name).c_str(), 0755);
    }
  }

  std::vector<finding> check(const std::string& text) {
    const process_table table(processes);
    const ini_document document(text);
    const control::site place{scratch_.path().string()};
    const auto programs = control::read_programs(control::parse_config(text), place.directory);
    return control::check_config({place, now, table, document, programs, is_present});
  }

  /// The line and severity of the finding whose text holds `part`: "3e", "0w"; "none".
  std::string place_of(const std::string& text, const std::string& part) {
    for (const finding& one : check(text)) {
      if (one.text.find(part) == std::string::npos) continue;
      EXPECT_FALSE(one.remedy.empty());
      return std::to_string(one.line) + (one.how == finding::severity::error ? "e" : "w");
    }
    return "none";
  }

  std::vector<process> processes;
  snapshot now;
  bool is_present = false;

 protected:
  scratch_dir scratch_;
};

constexpr char kClean[] =
    "[keelmond]\nlinux = 2\nsvr1 = kmd_web\nsvr2 = kmd_db\n\n[kmd_web]\nstate = run\n"
    "[kmd_db]\nstate = stop\n";

std::string with(std::string text, const std::string& old, const std::string& now) {
  const std::size_t at = text.find(old);
  EXPECT_NE(at, std::string::npos) << old;
  return text.replace(at, old.size(), now);
}

class check_config : public testing::Test, public checked_text {};

}  // namespace

TEST_F(check_config, finds_nothing_in_a_clean_file) {
  for (const finding& one : check(kClean))
    ADD_FAILURE() << one.line << ": " << one.text;
}

TEST_F(check_config, finds_headers_that_start_no_section) {
  EXPECT_EQ(place_of(with(kClean, "[kmd_db]", "[x]"), "fewer than two characters"), "8e");
  EXPECT_EQ(place_of(with(kClean, "[kmd_db]", "[kmd_db] ; x"), "something stands behind"), "8e");
  EXPECT_EQ(place_of(with(kClean, "[kmd_db]\n", "[kmd_db]  \r\n"), "something stands behind"),
            "8e");
  EXPECT_EQ(place_of(with(kClean, "[kmd_db]", "[ kmd_db ]"), "blanks inside the brackets"), "8w");
}

TEST_F(check_config, finds_blanks_tabs_and_comments_that_become_part_of_something) {
  EXPECT_EQ(place_of(with(kClean, "state = run", "state = run ; on"), "part of the value"), "7w");
  EXPECT_EQ(place_of(with(kClean, "state = run", "state = run # on"), "part of the value"), "7w");
  EXPECT_EQ(place_of(with(kClean, "state = run", "state\t=\trun"), "a tab is part"), "7e");
  EXPECT_EQ(place_of(with(kClean, "state = run", "\tstate = run"), "a tab is part"), "7e");
  EXPECT_EQ(place_of(with(kClean, "state = run", "a = 1\nstate = run"), "\"a \" with its blank"),
            "7w");
}

TEST_F(check_config, finds_lines_that_mean_nothing) {
  EXPECT_EQ(place_of(with(kClean, "\n\n", "\nhello\n"), "means nothing"), "5w");
  EXPECT_EQ(place_of(with(kClean, "\n\n", "\n\t# note\n"), "begins with a tab"), "5w");
  EXPECT_EQ(place_of(with(kClean, "state = run", "state ="), "key without a value"), "7w");
  EXPECT_EQ(place_of(with(kClean, "linux = 2", "linux = 2\ncount = 2"), "count means nothing"),
            "3w");
}

TEST_F(check_config, finds_keys_that_nobody_reads) {
  EXPECT_EQ(place_of(with(kClean, "state = run", "state = run\nexepth = /opt/web"),
                     "exepth means nothing in [kmd_web]"),
            "8w");
  EXPECT_EQ(place_of(with(kClean, "state = run", "state = run\nExepath = /opt/web"),
                     "Exepath means nothing in [kmd_web]"),
            "8w");
  EXPECT_EQ(place_of("state = run\n" + std::string(kClean), "state stands in no section"), "1w");
  // What nobody lists may say what it likes.
  EXPECT_EQ(place_of(std::string(kClean) + "[other]\nkey = value\n", "means nothing"), "none");
}

TEST_F(check_config, finds_repetitions) {
  EXPECT_EQ(
      place_of(with(kClean, "state = run", "state = run\nstate = stop"), "set again in line 8"),
      "7w");
  EXPECT_EQ(place_of(std::string(kClean) + "[kmd_web]\n", "is there already, in line 6"), "10w");
  EXPECT_EQ(place_of(with(kClean, "svr2 = kmd_db", "svr2 = kmd_web"), "listed as svr1 already"),
            "4w");
}

TEST_F(check_config, finds_a_count_that_does_not_fit) {
  EXPECT_EQ(place_of(with(kClean, "linux = 2", "linux = 1"), "kmd_db is left out"), "4e");
  EXPECT_EQ(place_of(with(kClean, "linux = 2", "linux = 3"), "the last one is svr2"), "2w");
  EXPECT_EQ(place_of(with(kClean, "linux = 2", "linux = 2x"), "no number of entries"), "2e");
  EXPECT_EQ(place_of(with(kClean, "linux = 2\n", ""), "nothing is run"), "1e");
  EXPECT_EQ(place_of("", "there is no section [keelmond]"), "0e");
  EXPECT_EQ(place_of(with(with(kClean, "svr2", "svr3"), "linux = 2", "linux = 3"),
                     "there is no svr2 before it"),
            "4w");
}

TEST_F(check_config, finds_values_that_are_refused) {
  EXPECT_EQ(place_of(with(kClean, "state = run", "state = " + std::string(128, 'x')),
                     "longer than 127 bytes"),
            "7e");
  EXPECT_EQ(place_of(with(kClean, "state = run", "exepath = /" + std::string(511, 'x')),
                     "longer than 511 bytes"),
            "7e");
  EXPECT_EQ(place_of(with(kClean, "svr2 = kmd_db", "svr2 = " + std::string(128, 'x')),
                     "longer than 127 bytes"),
            "4e");
}

TEST_F(check_config, finds_states_that_do_nothing) {
  EXPECT_EQ(place_of(with(kClean, "state = run", "state = Run"), "neither run nor stop"), "7e");
  EXPECT_EQ(place_of(with(kClean, "state = run\n", ""), "has no state"), "6w");
}

TEST_F(check_config, finds_names_that_stop_cannot_reach) {
  scratch_.write("kmd_webserver_long", "");
  ::chmod(scratch_.file("kmd_webserver_long").c_str(), 0755);
  EXPECT_EQ(place_of("[keelmond]\nlinux=1\nsvr1=kmd_webserver_long\n", "longer than the 15"), "3e");
  EXPECT_EQ(place_of(with(kClean, "state = run", "exepath = /bin/sleep\nstate = run"),
                     "pgrep will see the program as sleep"),
            "3e");
  EXPECT_EQ(place_of("[keelmond]\nlinux=1\nsvr1=x\n", "has one character"), "3e");
  EXPECT_EQ(place_of("[keelmond]\nlinux=1\nsvr1=a b\n", "not one plain word"), "3e");
  EXPECT_EQ(place_of("[keelmond]\nlinux=1\nsvr1=-x\n", "not one plain word"), "3e");
}

TEST_F(check_config, finds_interpreters_that_take_the_name_of_the_script) {
  const auto place_with = [&](const std::string& first_line) {
    scratch_.write("kmd_web", first_line + "\nprint(1)\n");
    return place_of(kClean, "env makes the process python3 of");
  };
  EXPECT_EQ(place_with("#!/usr/bin/env python3"), "3w");
  EXPECT_EQ(place_with("#!/usr/bin/env -S -u HOME NAME=1 python3 -u"), "3w");
  EXPECT_EQ(place_with("#! /usr/bin/env -S A=1 python3 -u"), "3w");
  EXPECT_EQ(place_with("#!/usr/bin/python3"), "none");
  EXPECT_EQ(place_with("#!/usr/bin/env"), "none");
  EXPECT_EQ(place_with("#!/usr/bin/env my_kmd_web"), "none");
  scratch_.write("kmd_web", "#!/usr/bin/env keelmond-run\n[program]\ncommand = sleep 5\n");
  EXPECT_EQ(place_of(kClean, "env makes"), "none");
  EXPECT_EQ(place_with("/usr/bin/env python3"), "none");
}

TEST_F(check_config, finds_names_that_reach_somebody_else) {
  EXPECT_EQ(place_of(with(kClean, "svr2 = kmd_db", "svr2 = kmd_"), "fits the program kmd_web"),
            "4e");
  EXPECT_EQ(place_of(with(kClean, "svr2 = kmd_db", "svr2 = mond"), "fits keelmond itself"), "4e");
  process stranger;
  stranger.pid = 77;
  stranger.name = "my_kmd_db_tool";
  processes = {stranger};
  EXPECT_EQ(place_of(kClean, "my_kmd_db_tool (PID 77)"), "4w");
  // The program's own processes are no strangers.
  running_program own;
  own.child.pid = 76;
  own.name = "kmd_db";
  own.listed = true;
  own.tree = {stranger};
  now.running = {own};
  EXPECT_EQ(place_of(kClean, "(PID 77)"), "none");
}

TEST_F(check_config, finds_program_files_whose_command_stop_would_hit) {
  const auto place_with = [&](const std::string& command) {
    scratch_.write("kmd_web", "#!/usr/bin/keelmond-run\n[program]\n" + command + "\n");
    return place_of(kClean, "fits its own command");
  };
  EXPECT_EQ(place_with("command = /opt/kmd_web.py --port 80"), "3e");
  EXPECT_EQ(place_with("umask = 022\ncommand = my_kmd_web"), "4e");
  // pgrep sees 15 characters of a name, and no arguments.
  EXPECT_EQ(place_with("command = /opt/one_long_name_kmd_web"), "none");
  EXPECT_EQ(place_with("command = /opt/kmd_web/server kmd_web"), "none");
  EXPECT_EQ(place_with("shell = yes\ncommand = exec kmd_web.py"), "none");
}

TEST_F(check_config, finds_programs_that_cannot_be_run) {
  const auto path = [&](const std::string& exepath) {
    return with(kClean, "state = run", "exepath = " + exepath + "\nstate = run");
  };
  EXPECT_EQ(place_of(path("/nonexistent/kmd_web"), "is missing"), "7e");
  EXPECT_EQ(place_of(path("/bin/sleep 5"), "split or expand"), "7e");
  EXPECT_EQ(place_of(path("$HOME/kmd_web"), "split or expand"), "7e");
  EXPECT_EQ(place_of(path("~/kmd_web"), "split or expand"), "7e");
  EXPECT_EQ(place_of(path("bin/kmd_web"), "is relative"), "7e");
  EXPECT_EQ(place_of(path(scratch_.path().string()), "is a directory"), "7e");
  ::chmod(scratch_.file("kmd_web").c_str(), 0757);
  EXPECT_EQ(place_of(kClean, "every user may write"), "3w");
  ::chmod(scratch_.file("kmd_web").c_str(), 0644);
  EXPECT_EQ(place_of(kClean, "is not executable"), "3e");
}

TEST_F(check_config, judges_files_by_the_user_of_the_daemon) {
  now.daemon_user = 54321;
  now.config.emplace();
  now.config->status.st_uid = 0;
  now.config->status.st_gid = 77;
  now.config->status.st_mode = 0660;
  is_present = true;
  const std::string web = scratch_.file("kmd_web");
  ::chmod(web.c_str(), 0750);
  EXPECT_EQ(place_of(kClean, "it counts as empty"), "0e");
  EXPECT_EQ(place_of(kClean, "user may not read and run " + web), "3e");
  struct stat status {};
  ASSERT_EQ(::stat(web.c_str(), &status), 0);
  now.daemon_groups = {77, status.st_gid};
  EXPECT_EQ(place_of(kClean, "it counts as empty"), "none");
  EXPECT_EQ(place_of(kClean, "user may not read and run"), "none");
}

TEST_F(check_config, finds_what_still_runs_without_an_entry) {
  running_program old;
  old.child.pid = 76;
  old.name = "kmd_old";
  old.program = process{};
  old.program->pid = 77;
  now.running = {old};
  EXPECT_EQ(place_of(kClean, "kmd_old (PID 77) still runs"), "0w");
}

TEST_F(check_config, finds_a_missing_directory_for_the_liveness_files) {
  std::filesystem::remove(scratch_.path() / "notify");
  EXPECT_EQ(place_of(kClean, "notify: no liveness files"), "0w");
}

TEST_F(check_config, finds_directories_and_files_that_others_may_write) {
  is_present = true;
  EXPECT_EQ(place_of(kClean, "every user may write"), "none");
  const std::string notify = scratch_.file("notify");
  ASSERT_EQ(::chmod(notify.c_str(), 0777), 0);
  EXPECT_EQ(place_of(kClean, "every user may write " + notify), "0w");
  // There nobody takes away what is another one's.
  ASSERT_EQ(::chmod(notify.c_str(), 01777), 0);
  EXPECT_EQ(place_of(kClean, "every user may write"), "none");
  std::filesystem::create_directory(scratch_.path() / "programs");
  const std::string programs = scratch_.file("programs/");
  ASSERT_EQ(::chmod(programs.c_str(), 0777), 0);
  EXPECT_EQ(place_of(with(kClean, "state = run", "exepath = " + programs + "kmd_web\nstate = run"),
                     "every user may write " + programs),
            "0w");
}

TEST_F(check_config, survives_any_text) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    std::string text;
    for (unsigned i = 0; i < seed; ++i)
      text += "[]=\n\r \tsvr1linux\0#x;"[(seed * 31 + i * 17) % 21];
    check(text);
  }
}

TEST(check_patterns, are_what_pgrep_takes_them_for) {
  EXPECT_TRUE(control::matches_as_pattern("web", "webmail"));
  EXPECT_TRUE(control::matches_as_pattern("^k.d$", "kmd"));
  EXPECT_FALSE(control::matches_as_pattern("web", "we"));
  EXPECT_FALSE(control::matches_as_pattern("(", "("));
  EXPECT_TRUE(control::is_plain_word("/srv/a-b_c.d"));
  for (const char* const text : {"a b", "a;b", "$a", "~a", "a*", "a`b", "a\"b", "a'b", "a&", "a(b"})
    EXPECT_FALSE(control::is_plain_word(text)) << text;
}
