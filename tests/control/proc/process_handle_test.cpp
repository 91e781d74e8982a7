#include "control/proc/process_handle.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

using control::proc_dir;
using control::process_handle;
using std::chrono::milliseconds;

namespace {

/// A child that does nothing until it is ended.
class idle_child final {
 public:
  idle_child() : pid_(::fork()) {
    // Its number is killed later, and -1 is everybody.
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ != 0) return;
    for (;;)
      ::pause();
  }
  idle_child(const idle_child&) = delete;
  idle_child& operator=(const idle_child&) = delete;
  ~idle_child() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  [[nodiscard]] pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

}  // namespace

TEST(process_handle, signals_the_process_and_sees_its_end) {
  const proc_dir proc;
  const idle_child child;
  const process_handle handle(proc, *proc.find(child.pid()));
  ASSERT_TRUE(handle.valid());
  EXPECT_FALSE(handle.wait_end(milliseconds(1)));
  EXPECT_TRUE(handle.send(SIGTERM));
  EXPECT_TRUE(handle.wait_end(milliseconds(10000)));
  EXPECT_TRUE(handle.has_ended());
}

TEST(process_handle, does_not_take_a_later_process_with_the_same_id) {
  const proc_dir proc;
  const idle_child child;
  control::process earlier = *proc.find(child.pid());
  earlier.started -= 1;
  const process_handle handle(proc, earlier);
  EXPECT_FALSE(handle.valid());
  EXPECT_FALSE(handle.send(SIGKILL));
  EXPECT_EQ(errno, ESRCH);
  EXPECT_TRUE(proc.find(child.pid()));
}

TEST(process_handle, waits_for_several) {
  const proc_dir proc;
  const idle_child first;
  const idle_child second;
  std::vector<process_handle> handles;
  handles.emplace_back(proc, *proc.find(first.pid()));
  handles.emplace_back(proc, *proc.find(second.pid()));
  EXPECT_TRUE(handles[0].send(SIGTERM));
  EXPECT_FALSE(wait_all_ended(handles, milliseconds(20)));
  EXPECT_TRUE(handles[1].send(SIGTERM));
  EXPECT_TRUE(wait_all_ended(handles, milliseconds(10000)));
}
