#include "runner/file/program_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/support/scratch_dir.h"

using namespace std::chrono_literals;
using runner::program_file;
using runner::program_file_result;
using runner::read_program_text;

namespace {

constexpr char kPath[] = "/srv/kmd_redis";
const std::string kCommand = "[program]\ncommand = a\n";

program_file read(const std::string& text) {
  const program_file_result result = read_program_text(text, kPath);
  for (const auto& one : result.findings)
    ADD_FAILURE() << runner::in_one_line(kPath, one);
  return result.settings;
}

/// What is wrong in a text, one line for each.
std::string wrong(const std::string& text) {
  std::string lines;
  for (const auto& one : read_program_text(text, kPath).findings)
    lines += runner::in_one_line("", one) + "\n";
  return lines;
}

}  // namespace

TEST(program_file, says_how_a_program_is_run) {
  const program_file file = read(
      "#!/usr/bin/keelmond-run\n"
      "[program]\n"
      "command = redis-server --port 6390 --save \"3600 1\"\n"
      "directory = /srv/redis\n"
      "user = root\n"
      "umask = 027\n"
      "nice = -5\n"
      "oom_score = 500\n"
      "needs = kmd_a kmd_b\n"
      "# a remark\n"
      "[log]\n"
      "file = /var/log/redis.log\n"
      "size = 10M\n"
      "keep = 7\n"
      "[stop]\n"
      "signal = QUIT\n"
      "timeout = 1m\n"
      "[restart]\n"
      "delay = 0.5\n"
      "longest = 30\n"
      "on = failure\n"
      "[ready]\n"
      "tcp = 6390\n"
      "[health]\n"
      "http = http://[::1]:8080/health?x=1\n"
      "[limits]\n"
      "nofile = 1024:4096\n"
      "memory = 1G\n"
      "[on]\n"
      "shell = yes\n"
      "failure = mail -s \"$NAME\" root < /dev/null\n");
  using words = std::vector<std::string>;
  EXPECT_EQ(file.program.command, (words{"redis-server", "--port", "6390", "--save", "3600 1"}));
  EXPECT_EQ(file.program.directory, "/srv/redis");
  EXPECT_EQ(file.program.who.uid, 0U);
  EXPECT_EQ(file.program.umask, 027U);
  EXPECT_EQ(file.program.nice, -5);
  EXPECT_EQ(file.program.oom_score, 500);
  EXPECT_EQ(file.program.needs, (words{"kmd_a", "kmd_b"}));
  EXPECT_EQ(file.log.target, runner::log_target::file);
  EXPECT_EQ(file.log.name, "kmd_redis");
  EXPECT_EQ(file.log.keep, 7U);
  EXPECT_EQ(file.stop.signal, SIGQUIT);
  EXPECT_EQ(file.stop.timeout, 60s);
  EXPECT_EQ(file.restart.delay, 500ms);
  EXPECT_EQ(file.restart.on, runner::restart_policy::failure);
  EXPECT_EQ(file.ready.probe.host, "127.0.0.1");
  EXPECT_EQ(file.ready.probe.port, 6390);
  EXPECT_EQ(file.health.probe.host, "::1");
  EXPECT_EQ(file.health.probe.path, "/health?x=1");
  EXPECT_EQ(file.limits.resources.size(), 1U);
  EXPECT_EQ(file.limits.group.memory, 1U << 30);
  EXPECT_EQ(file.on.failure, (words{"/bin/sh", "-c", "mail -s \"$NAME\" root < /dev/null"}));
}

TEST(program_file, what_it_leaves_out_has_values_all_the_same) {
  const program_file file = read(kCommand);
  EXPECT_EQ(file.program.directory, "/srv");
  EXPECT_EQ(file.program.umask, 022U);
  EXPECT_FALSE(file.program.who.uid);
  EXPECT_EQ(file.stop.signal, SIGTERM);
  EXPECT_EQ(file.stop.timeout, 10s);
  EXPECT_EQ(file.log.target, runner::log_target::inherit);
}

TEST(program_file, relative_paths_begin_where_the_file_is) {
  const program_file file =
      read(kCommand + "directory = data\n[log]\nfile = logs/x.log\n[ready]\nunix = s\n");
  EXPECT_EQ(file.program.directory, "/srv/data");
  EXPECT_EQ(file.log.file, "/srv/logs/x.log");
  EXPECT_EQ(file.ready.probe.path, "/srv/s");
}

TEST(program_file, unknown_sections_and_keys_are_refused) {
  EXPECT_EQ(wrong(kCommand + "[programs]\nx = 1\n"),
            ":3: there is no section \"programs\"; the sections are program, environment, limits, "
            "log, stop, restart, ready, health, on\n");
  EXPECT_EQ(wrong(kCommand + "[restart]\ndelays = 1\n"),
            ":4: delays: [restart] has no such key; its keys are delay, longest, steady, give_up, "
            "on\n");
  EXPECT_EQ(wrong("command = a\n" + kCommand),
            ":1: command: it stands in no section; put it below a header such as [program]\n");
}

TEST(program_file, every_value_that_cannot_be_understood_is_told_with_what_would_be_right) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"[restart]\nlongest = 36526d",
       "longest: \"36526d\" cannot be understood; write a duration "
       "such as 0.5, 500ms, 10s, 2m or 1h, at most 100 years"},
      {"[restart]\ndelay = soon", "delay: \"soon\" cannot be understood; write a duration"},
      {"[log]\nfile = x\nsize = 10Q", "size: \"10Q\" cannot be understood; write a size"},
      {"[log]\nfile = x\nkeep = many", "keep: \"many\" cannot be understood; write a number"},
      {"[stop]\nsignal = NONE", "signal: \"NONE\" cannot be understood; write the name"},
      {"[limits]\nnofile = 5:4", "nofile: \"5:4\" cannot be understood; write SOFT"},
      {"[limits]\ntasks = 0", "tasks: \"0\" cannot be understood; write a number above 0"},
      {"[ready]\ntcp = 70000", "tcp: \"70000\" cannot be understood; write PORT"},
      {"[ready]\ntcp = example.com:80", "tcp: \"example.com:80\" cannot be understood"},
      {"[health]\nhttp = ftp://127.0.0.1", "http: \"ftp://127.0.0.1\" cannot be understood"},
      {"[health]\ntcp = 1\nevery = 0", "every: \"0\" cannot be understood"},
      {"[stop]\ncommand = 'x", "command: the quote ' is not closed; write a command"},
      {"[on]\nready = x | y", "ready: an unquoted | needs a shell; write a command"},
      {"[program]\nuser = nobody-here", "user: no user is called \"nobody-here\""},
      {"[program]\nuser = 4711", "user: nothing says which group the user has; add group"},
      {"[program]\ngroup = none-here", "group: no group is called \"none-here\""},
      {"[program]\nneeds = ../x", "needs: \"../x\" cannot be understood; write names"},
      {"[program]\nneeds = kmd_a kmd_redis", "needs: kmd_redis waits for itself; write names"},
      {"[environment]\n1A = x", "1A: no variable can be called that; write NAME = value"},
      {"[environment]\nfile = /nonexistent", "file: cannot read /nonexistent: No such file"},
      {"[restart]\ndelay = 2m", "delay: delay is above longest"},
      {"[log]\nsize = 10M", "size: it needs a file; add file = PATH to [log]"},
      {"[log]\nto = syslog\nfile = x", "file: it means nothing with to = syslog"},
      {"[log]\nfile = x\nstderr = /srv/x", "stderr: it is the log itself; write stderr = same"},
      {"[ready]\ntimeout = 3", "timeout: nothing in [ready] says how to ask; add tcp"},
      {"[ready]\ntcp = 1\nfile = x", "file: there is another way to ask in this section"},
  };
  for (const auto& [text, expected] : cases)
    EXPECT_NE(wrong(kCommand + text + "\n").find(expected), std::string::npos)
        << text << "\n"
        << wrong(kCommand + text + "\n");
}

TEST(program_file, a_command_is_what_every_file_needs) {
  EXPECT_EQ(wrong(""), ": command: there is no command; add command = PROGRAM to [program]\n");
}

TEST(program_file, lines_that_mean_nothing_are_refused) {
  EXPECT_EQ(wrong(kCommand + "umask=\n"), ":3: umask: it has no value; leave the line out\n");
  EXPECT_NE(wrong(kCommand + "nonsense\n").find(":3: \"nonsense\" is neither a header"),
            std::string::npos);
  EXPECT_NE(wrong(kCommand + "x\n").find(":3: \"x\" is neither a header"), std::string::npos);
  EXPECT_NE(wrong(kCommand + "\tumask = 022\n").find("a blank or a tab is part of the key"),
            std::string::npos);
  EXPECT_NE(wrong(kCommand + "umask =\t022\n").find("a tab is part of the value"),
            std::string::npos);
  EXPECT_NE(wrong(kCommand + "[environment]\nA = 1\n").find("put none before the ="),
            std::string::npos);
  EXPECT_NE(wrong("[program]\ncommand = a" + std::string(1, '\0') + "b\n").find("a zero byte"),
            std::string::npos);
  EXPECT_EQ(wrong(kCommand + "\n   \n\t\n; x\n@ y\n% z\n/ q\r\n"), "");
}

TEST(program_file, a_key_that_stands_twice_is_refused) {
  EXPECT_EQ(wrong(kCommand + "[log]\nto = inherit\n[program]\ncommand = b\n"),
            ":6: command: it stands in line 2 already; write it once\n");
}

TEST(program_file, everything_that_is_wrong_is_told_in_the_order_of_the_lines) {
  EXPECT_EQ(wrong("[program]\ncommand = 'a\numask = 9\n[stop]\ntimeout = x\n"),
            ":2: command: the quote ' is not closed; write a command, with quotes around words "
            "that hold blanks\n"
            ":3: umask: \"9\" cannot be understood; write an octal number from 000 to 777\n"
            ":5: timeout: \"x\" cannot be understood; write a duration such as 0.5, 500ms, 10s, "
            "2m or 1h, at most 100 years\n");
}

TEST(program_file, an_explanation_is_a_program_file_that_says_the_same) {
  const program_file file = read(kCommand + "umask = 077\n[environment]\nHERE = there\n");
  const std::string text = runner::explain(file);
  EXPECT_NE(text.find("\numask = 077\n"), std::string::npos);
  EXPECT_NE(text.find("\nHERE = there\n"), std::string::npos);
  EXPECT_NE(text.find("\n# user: (the supervisor's)\n"), std::string::npos);
  EXPECT_NE(text.find("\n# longest = 60s\n"), std::string::npos);
  EXPECT_EQ(runner::explain(read(text)), text);
}

TEST(program_file, is_read_without_a_permission_to_write_it) {
  const scratch_dir scratch;
  scratch.write("kmd_x", kCommand);
  ASSERT_EQ(::chmod(scratch.file("kmd_x").c_str(), 0444), 0);
  EXPECT_TRUE(runner::read_program_file(scratch.file("kmd_x")).findings.empty());
}

TEST(program_file, what_is_no_file_is_refused) {
  const scratch_dir scratch;
  const auto first = [&](const std::string& path) {
    const auto result = runner::read_program_file(path);
    return result.findings.empty() ? "" : result.findings.front().text;
  };
  EXPECT_EQ(first(scratch.file("missing")), "cannot read it: No such file or directory");
  EXPECT_EQ(first(scratch.path().string()), "it is no file");
  ASSERT_EQ(::mkfifo(scratch.file("pipe").c_str(), 0600), 0);
  EXPECT_EQ(first(scratch.file("pipe")), "it is no file");
  scratch.write("large", std::string(runner::kLargestProgramFile + 1, '#'));
  EXPECT_EQ(first(scratch.file("large")), "it is larger than 1M");
}

TEST(program_file, an_environment_file_that_is_none_is_refused) {
  const scratch_dir scratch;
  scratch.write("large", std::string(runner::kLargestProgramFile + 1, '#'));
  const auto refusal = [&](const std::string& path) {
    return wrong(kCommand + "[environment]\nfile = " + path + "\n");
  };
  const std::string remedy = "; name a file with lines NAME=value\n";
  EXPECT_EQ(refusal("/dev/zero"), ":4: file: /dev/zero is no file" + remedy);
  // Its size is told as 0.
  EXPECT_EQ(refusal("/proc/self/pagemap"),
            ":4: file: /proc/self/pagemap is larger than 1M" + remedy);
  EXPECT_EQ(refusal(scratch.file("large")),
            ":4: file: " + scratch.file("large") + " is larger than 1M" + remedy);
  EXPECT_EQ(refusal("/nowhere"),
            ":4: file: cannot read /nowhere: No such file or directory" + remedy);
}

TEST(program_file, is_known_by_its_first_line) {
  for (const char* const yes : {"#!/usr/bin/keelmond-run\n[program]", "#! /opt/keelmond-run",
                                "#!/usr/bin/env keelmond-run\n", "#!/usr/bin/keelmond-run\r\n",
                                "#!/opt/keelmond-run-1.0/bin/keelmond-run\n"})
    EXPECT_TRUE(runner::is_program_file(yes)) << yes;
  for (const char* const no : {"", "#!/bin/sh\n# keelmond-run", "/usr/bin/keelmond-run",
                               "#!/usr/bin/keelmond-runner\n", "#!/usr/bin/my-keelmond-run2"})
    EXPECT_FALSE(runner::is_program_file(no)) << no;
}
