#include "common/thread/stack_size.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

TEST(small_stack_size, is_the_stated_one_where_that_is_enough) {
  EXPECT_EQ(small_stack_size(-1), kSmallStack);
  EXPECT_EQ(small_stack_size(16384), kSmallStack);
  EXPECT_EQ(small_stack_size(static_cast<long>(kSmallStack)), kSmallStack);
}

TEST(small_stack_size, is_in_whole_pages_what_a_thread_needs_at_least) {
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const std::size_t needed = kSmallStack + 1;
  EXPECT_EQ(small_stack_size(static_cast<long>(needed)), kSmallStack + page);
  EXPECT_EQ(small_stack_size(static_cast<long>(kSmallStack + page)), kSmallStack + page);
}

TEST(small_stack_size, is_enough_on_this_machine) {
  EXPECT_GE(small_stack_size(), static_cast<std::size_t>(::sysconf(_SC_THREAD_STACK_MIN)));
}

}  // namespace
