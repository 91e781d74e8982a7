#include "runner/supervise/descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/in_child.h"

namespace {

bool is_open(int fd) {
  return ::fcntl(fd, F_GETFD) >= 0;
}

}  // namespace

TEST(descriptors, are_closed_by_their_list_however_high_they_are) {
  in_child([] {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const int highest = static_cast<int>(std::min<rlim_t>(limit.rlim_max, 100000)) - 1;
    const int lower = highest / 2;
    ASSERT_EQ(::dup2(STDOUT_FILENO, highest), highest);
    ASSERT_EQ(::dup2(STDOUT_FILENO, lower), lower);
    runner::close_listed(lower + 1);
    EXPECT_FALSE(is_open(highest));
    EXPECT_TRUE(is_open(lower));
    runner::close_listed(lower);
    EXPECT_FALSE(is_open(lower));
    EXPECT_TRUE(is_open(STDOUT_FILENO));
  });
}
