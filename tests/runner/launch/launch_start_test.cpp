#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <string>
#include <vector>

#include "runner/launch/launch.h"
#include "tests/support/channel.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"

using runner::command_words;
using runner::launch_failure;
using runner::launch_step;
using runner::launched;
using runner::program_file;

namespace {

/// What came of a start.
struct started {
  launch_failure failure;
  int status = -1;  ///< As waitpid tells it.
};

/// Starts a command and waits for its end.
started run(const command_words& words, const program_file& file = {}, int output = 1,
            int errors = 2, const std::vector<std::string>& environment = {"PATH=/usr/bin:/bin"}) {
  runner::launch_order order{words, file, environment};
  order.output = output;
  order.errors = errors;
  const launched one = runner::launch(order);
  if (one.pid < 0) return {one.failure, -1};
  pollfd request{one.report.get(), POLLIN, 0};
  EXPECT_EQ(::poll(&request, 1, 30'000), 1);
  started result{runner::read_report(one.report.get()), -1};
  EXPECT_EQ(::waitpid(one.pid, &result.status, 0), one.pid);
  return result;
}

program_file in_root() {
  program_file file;
  file.program.directory = "/";
  return file;
}

/// The step that a start fails in, and errno.
std::pair<launch_step, int> failure_of(const command_words& words, const program_file& file,
                                       const std::string& path = "/usr/bin:/bin") {
  const started result = run(words, file, 1, 2, {"PATH=" + path});
  return {result.failure.step, result.failure.error};
}

/// What is advised after a failure.
std::string remedy_of(const launch_failure& failure) {
  const command_words words{"true"};
  program_file file;
  file.limits.resources.push_back({RLIMIT_NOFILE, {1U << 31, 1U << 31}, 4});
  const std::vector<std::string> environment;
  return runner::describe(failure, {words, file, environment}).remedy;
}

void make_ordinary() {
  if (::geteuid() != 0) return;
  ASSERT_EQ(::setresgid(54321, 54321, 54321), 0);
  ASSERT_EQ(::setresuid(54321, 54321, 54321), 0);
}

}  // namespace

TEST(launch, executes_a_command_that_is_found_in_the_programs_path) {
  in_child([] {
    const started result = run({"sh", "-c", "exit 3"}, in_root());
    EXPECT_EQ(result.failure.step, launch_step::none);
    EXPECT_EQ(result.status, 3 << 8);
  });
}

TEST(launch, what_is_started_has_the_launchers_name_at_no_time) {
  in_child([] {
    ::prctl(PR_SET_NAME, "kmd_launcher");
    // All that is written is the OOM score, in the new process and before the command.
    faults.write = [](int fd, const void* text, std::size_t size) {
      std::ofstream("name") << read_file("/proc/self/comm");
      return real::write(fd, text, size);
    };
    program_file file = in_root();
    file.program.oom_score = 1000;
    EXPECT_EQ(run({"true"}, file).failure.step, launch_step::none);
    EXPECT_EQ(read_file("name"), "true\n");
    EXPECT_EQ(run({"/usr/bin/sleep", "0"}, file).failure.step, launch_step::none);
    EXPECT_EQ(read_file("name"), "sleep\n");
    EXPECT_EQ(read_file("/proc/self/comm"), "kmd_launcher\n");
  });
}

TEST(launch, gives_each_output_its_place_also_when_they_are_the_other_way_round) {
  in_child([] {
    const channel out = make_pipe();
    const channel err = make_pipe();
    ASSERT_EQ(::dup2(err.writer.get(), STDOUT_FILENO), STDOUT_FILENO);
    ASSERT_EQ(::dup2(out.writer.get(), STDERR_FILENO), STDERR_FILENO);
    run({"sh", "-c", "echo out; echo err >&2; readlink /proc/self/fd/0"}, in_root(), STDERR_FILENO,
        STDOUT_FILENO);
    EXPECT_EQ(read_all(out), "out\n/dev/null\n");
    EXPECT_EQ(read_all(err), "err\n");
  });
}

TEST(launch, prefers_what_is_there_and_cannot_be_executed_to_what_is_not_there) {
  in_child([] {
    const scratch_dir place;
    place.write("thing", "#!/bin/sh\n");
    const std::string here = place.path().string();
    EXPECT_EQ(failure_of({"thing"}, in_root(), here + ":/nonexistent"),
              std::pair(launch_step::command, EACCES));
    EXPECT_EQ(failure_of({"thing"}, in_root(), "/nonexistent"),
              std::pair(launch_step::command, ENOENT));
    EXPECT_EQ(failure_of({place.file("thing") + "/below"}, in_root()),
              std::pair(launch_step::command, ENOENT));
    EXPECT_EQ(failure_of({"thing"}, in_root(), ""), std::pair(launch_step::command, ENOENT));
  });
}

TEST(launch, says_what_it_failed_in) {
  in_child([] {
    make_ordinary();
    program_file file = in_root();
    file.program.directory = "/nonexistent";
    EXPECT_EQ(failure_of({"true"}, file), std::pair(launch_step::directory, ENOENT));
    file = in_root();
    file.program.oom_score = 5000;
    EXPECT_EQ(failure_of({"true"}, file).first, launch_step::oom_score);
    file = in_root();
    file.program.nice = -20;
    EXPECT_EQ(failure_of({"true"}, file).first, launch_step::nice);
    file = in_root();
    file.program.who.uid = 0;
    file.program.who.gid = 0;
    const launch_step step = failure_of({"true"}, file).first;
    EXPECT_TRUE(step != launch_step::none && step != launch_step::command);
  });
}

TEST(launch, an_ordinary_user_who_is_named_gets_no_groups_that_he_has_not) {
  in_child([] {
    const gid_t other[] = {54323};
    if (::geteuid() == 0) {
      ASSERT_EQ(::setgroups(1, other), 0);
    }
    make_ordinary();
    const std::string user = std::to_string(::geteuid());
    const std::string group = std::to_string(::getegid());
    std::vector<gid_t> own(static_cast<std::size_t>(::getgroups(0, nullptr)));
    ASSERT_GE(::getgroups(static_cast<int>(own.size()), own.data()), 0);
    own.push_back(::getegid());
    const auto failure_with = [&](const std::string& groups) {
      const auto read =
          runner::read_program_text("[program]\ncommand = true\ndirectory = /\nuser = " + user +
                                        "\ngroup = " + group + "\n" + groups,
                                    "/srv/programs/kmd_x");
      EXPECT_TRUE(read.findings.empty());
      return failure_of({"true"}, read.settings);
    };
    const auto nothing = std::pair(launch_step::none, 0);
    EXPECT_EQ(failure_with(""), nothing);
    for (const gid_t one : own)
      EXPECT_EQ(failure_with("groups = " + std::to_string(one) + "\n"), nothing);
    EXPECT_EQ(failure_with("groups = 54324\n"), std::pair(launch_step::groups, EPERM));
  });
}

TEST(launch, says_which_limit_cannot_be_set) {
  in_child([] {
    make_ordinary();
    rlimit now{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &now), 0);
    program_file file = in_root();
    file.limits.resources.push_back({RLIMIT_CORE, {0, 0}, 4});
    file.limits.resources.push_back({RLIMIT_NOFILE, {now.rlim_max + 1, now.rlim_max + 1}, 5});
    const started result = run({"true"}, file);
    EXPECT_EQ(result.failure.step, launch_step::limit);
    EXPECT_EQ(result.failure.limit, 1);
  });
}

TEST(launch, tells_who_is_not_root_what_only_root_may_do) {
  in_child([] {
    make_ordinary();
    const std::string told = "only a supervisor that runs as root may do that";
    EXPECT_EQ(remedy_of({launch_step::nice, EACCES, 0}), told);
    EXPECT_EQ(remedy_of({launch_step::user, EPERM, 0}), told);
    EXPECT_EQ(remedy_of({launch_step::limit, EPERM, 0}), told);
    EXPECT_EQ(remedy_of({launch_step::command, EACCES, 0}), "");
  });
}

TEST(launch, does_not_tell_root_to_be_root) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root is refused what nobody may do";
  EXPECT_EQ(remedy_of({launch_step::limit, EPERM, 0}), "");
}

TEST(launch, does_not_start_what_cannot_enter_its_control_group) {
  in_child([] {
    const command_words words{"true"};
    const program_file file = in_root();
    const std::vector<std::string> environment{"PATH=/bin"};
    runner::launch_order order{words, file, environment};
    order.group_entrance = "/nonexistent/cgroup.procs";
    const launched one = runner::launch(order);
    ASSERT_GT(one.pid, 0);
    EXPECT_EQ(::waitpid(one.pid, nullptr, 0), one.pid);
    EXPECT_EQ(runner::read_report(one.report.get()).step, launch_step::control_group);
  });
}

TEST(launch, says_that_there_is_no_process_or_no_pipe) {
  const no_faults_afterwards restore;
  faults.fork = [] {
    errno = EAGAIN;
    return -1;
  };
  EXPECT_EQ(failure_of({"true"}, in_root()), std::pair(launch_step::process, EAGAIN));
  faults.pipe2 = [](int*, int) {
    errno = EMFILE;
    return -1;
  };
  EXPECT_EQ(failure_of({"true"}, in_root()), std::pair(launch_step::process, EMFILE));
}
