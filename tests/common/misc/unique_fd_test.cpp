#include "common/misc/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

namespace {

int open_null() {
  return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool is_open(int fd) {
  return ::fcntl(fd, F_GETFD) >= 0;
}

TEST(unique_fd, a_new_one_holds_nothing) {
  const unique_fd fd;
  EXPECT_EQ(fd.get(), -1);
  EXPECT_FALSE(fd.valid());
}

TEST(unique_fd, what_it_holds_is_closed_when_it_goes) {
  int held = -1;
  {
    const unique_fd fd(open_null());
    held = fd.get();
    EXPECT_TRUE(fd.valid());
    EXPECT_TRUE(is_open(held));
  }
  EXPECT_FALSE(is_open(held));
}

TEST(unique_fd, zero_is_a_descriptor_like_any_other) {
  const unique_fd input(::fcntl(0, F_DUPFD_CLOEXEC, 10));
  {
    const unique_fd fd(::dup2(unique_fd(open_null()).get(), 0));
    EXPECT_TRUE(fd.valid());
  }
  EXPECT_FALSE(is_open(0));
  if (input.valid()) ::dup2(input.get(), 0);
}

TEST(unique_fd, a_failed_open_is_not_closed) {
  const unique_fd failed(-1);
  EXPECT_FALSE(failed.valid());
}

TEST(unique_fd, a_reset_closes_the_old_and_takes_the_new) {
  unique_fd fd(open_null());
  const int first = fd.get();
  const int second = open_null();
  fd.reset(second);
  EXPECT_FALSE(is_open(first));
  EXPECT_TRUE(is_open(second));
  EXPECT_EQ(fd.get(), second);
  fd.reset();
  EXPECT_FALSE(is_open(second));
  EXPECT_FALSE(fd.valid());
}

TEST(unique_fd, a_released_descriptor_stays_open) {
  unique_fd fd(open_null());
  const int held = fd.get();
  EXPECT_EQ(fd.release(), held);
  EXPECT_FALSE(fd.valid());
  EXPECT_TRUE(is_open(held));
  fd.reset(held);
}

TEST(unique_fd, moving_leaves_nothing_behind) {
  unique_fd from(open_null());
  const int held = from.get();
  unique_fd to(std::move(from));
  EXPECT_EQ(from.get(), -1);  // NOLINT(bugprone-use-after-move): that is what is tested
  EXPECT_EQ(to.get(), held);
  EXPECT_TRUE(is_open(held));

  unique_fd target(open_null());
  const int replaced = target.get();
  target = std::move(to);
  EXPECT_FALSE(is_open(replaced));
  EXPECT_EQ(target.get(), held);
  EXPECT_EQ(to.get(), -1);  // NOLINT(bugprone-use-after-move): that is what is tested
}

TEST(unique_fd, moving_to_itself_keeps_the_descriptor) {
  unique_fd fd(open_null());
  const int held = fd.get();
  unique_fd& same = fd;
  fd = std::move(same);
  EXPECT_EQ(fd.get(), held);
  EXPECT_TRUE(is_open(held));
}

TEST(unique_fd, it_cannot_be_copied) {
  static_assert(!std::is_copy_constructible_v<unique_fd>);
  static_assert(!std::is_copy_assignable_v<unique_fd>);
  static_assert(!std::is_convertible_v<int, unique_fd>);
}

}  // namespace
