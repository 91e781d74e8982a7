#include "control/site/stopping.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "common/misc/unique_fd.h"
#include "tests/control/proc/descriptor_limit.h"
#include "tests/control/proc/idle_child.h"
#include "tests/support/wait_until.h"

using control::proc_dir;
using control::process;
using control::running_program;
using control::stopping;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds kLongest{30000};

/// What a program looks like below `child` of the daemon.
running_program program_of(const proc_dir& proc, pid_t child, pid_t program) {
  running_program one;
  one.name = "p" + std::to_string(program);
  one.child = *proc.find(child);
  one.program = proc.find(program);
  one.tree = {*one.program};
  return one;
}

int g_told = -1;

/// Tells of each SIGUSR2 by a byte in a pipe; ends by SIGTERM, with the end of the pipe.
class telling_child final {
 public:
  telling_child() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    told_.reset(ends[0]);
    unique_fd tells(ends[1]);
    // A handler is inherited, so the signal finds one however early it comes.
    g_told = ends[1];
    const auto before = std::signal(SIGUSR2, [](int) { std::ignore = ::write(g_told, "x", 1); });
    child_ = std::make_unique<idle_child>();
    std::signal(SIGUSR2, before);
  }

  [[nodiscard]] pid_t pid() const { return child_->pid(); }
  /// Waits for one more. @return whether one came before the end.
  [[nodiscard]] bool wait_told() const {
    char byte = 0;
    return ::read(told_.get(), &byte, 1) == 1;
  }

 private:
  unique_fd told_;
  std::unique_ptr<idle_child> child_;
};

/// A child that forks whenever it is told to, and whose children do nothing.
class forking_child final {
 public:
  forking_child() {
    int order[2];
    int answer[2];
    if (::pipe2(order, O_CLOEXEC) != 0 || ::pipe2(answer, O_CLOEXEC) != 0)
      throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ == 0) {
      for (char byte = 0; ::read(order[0], &byte, 1) == 1;) {
        const pid_t below = ::fork();
        while (below == 0)
          ::pause();
        std::ignore = ::write(answer[1], &below, sizeof below);
      }
      ::_exit(0);
    }
    ::close(order[0]);
    ::close(answer[1]);
    order_.reset(order[1]);
    answer_.reset(answer[0]);
  }
  forking_child(const forking_child&) = delete;
  forking_child& operator=(const forking_child&) = delete;
  ~forking_child() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

  [[nodiscard]] pid_t pid() const { return pid_; }
  /// @return the new one below it.
  [[nodiscard]] pid_t fork_one() const {
    pid_t below = 0;
    if (::write(order_.get(), "f", 1) != 1 ||
        ::read(answer_.get(), &below, sizeof below) != sizeof below) {
      throw std::runtime_error("no answer");
    }
    return below;
  }

 private:
  unique_fd order_;
  unique_fd answer_;
  pid_t pid_ = -1;
};

}  // namespace

TEST(stopping, asks_each_program_once_even_if_it_is_seen_again) {
  const proc_dir proc;
  const idle_child child;
  const telling_child first;
  stopping all(proc, {program_of(proc, child.pid(), first.pid())});
  all.ask(SIGUSR2);
  ASSERT_TRUE(first.wait_told());

  const telling_child later;
  all.add({program_of(proc, child.pid(), first.pid()), program_of(proc, first.pid(), first.pid()),
           program_of(proc, later.pid(), later.pid())});
  all.ask(SIGUSR2);
  EXPECT_TRUE(later.wait_told());
  ASSERT_EQ(::kill(first.pid(), SIGTERM), 0);
  EXPECT_FALSE(first.wait_told());
}

TEST(stopping, waits_for_the_child_of_the_daemon_as_well_and_names_what_is_left) {
  const proc_dir proc;
  const idle_child child;
  const idle_child program;
  stopping all(proc, {program_of(proc, child.pid(), program.pid())});
  all.ask(SIGTERM);
  EXPECT_FALSE(all.wait(milliseconds(20)));
  const std::string pid = std::to_string(program.pid());
  EXPECT_EQ(all.left(), std::vector<std::string>{"p" + pid + " (PID " + pid + ")"});
  all.kill();
  EXPECT_TRUE(all.wait(kLongest));
  EXPECT_TRUE(all.left().empty());
}

TEST(stopping, kills_what_was_forked_since_the_program_was_found) {
  const proc_dir proc;
  const idle_child child;
  const forking_child program;
  const stopping all(proc, {program_of(proc, child.pid(), program.pid())});
  const pid_t below = program.fork_one();
  ASSERT_TRUE(proc.find(below));
  all.kill();
  EXPECT_TRUE(all.wait(kLongest));
  EXPECT_TRUE(wait_until([&] { return !proc.find(below); }));
  if (proc.find(below)) ::kill(below, SIGKILL);
}

TEST(stopping, hits_nobody_who_has_the_number_of_one_that_has_ended) {
  const proc_dir proc;
  const idle_child stranger;
  running_program earlier = program_of(proc, stranger.pid(), stranger.pid());
  earlier.child.started -= 1;
  earlier.program = earlier.child;
  earlier.tree = {earlier.child};
  stopping all(proc, {earlier});
  all.ask(SIGKILL);
  all.kill();
  EXPECT_TRUE(all.wait(kLongest));
  EXPECT_TRUE(all.left().empty());
  EXPECT_TRUE(proc.find(stranger.pid()));
}

TEST(stopping, reaches_more_programs_than_there_is_room_for_descriptors) {
  const proc_dir proc;
  std::vector<std::unique_ptr<idle_child>> children;
  std::vector<running_program> programs;
  for (int i = 0; i < 20; ++i) {
    children.push_back(std::make_unique<idle_child>());
    programs.push_back(program_of(proc, children.back()->pid(), children.back()->pid()));
  }
  const descriptor_limit few(3);
  stopping all(proc, programs);
  all.ask(SIGTERM);
  EXPECT_TRUE(all.wait(kLongest));
  EXPECT_TRUE(all.left().empty());
}
