#include "control/proc/process_handle.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <vector>

#include "tests/control/proc/descriptor_limit.h"
#include "tests/control/proc/idle_child.h"

using control::proc_dir;
using control::process_handle;
using std::chrono::milliseconds;

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

TEST(process_handle, says_so_where_there_is_no_room_for_it) {
  const proc_dir proc;
  const idle_child child;
  const control::process known = *proc.find(child.pid());
  const descriptor_limit none(0);
  EXPECT_THROW(process_handle(proc, known), std::system_error);
}
