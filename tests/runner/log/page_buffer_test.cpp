#include "runner/log/page_buffer.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>

#include "tests/support/fault.h"

using runner::page_buffer;

TEST(page_buffer, has_forgotten_what_was_in_it_and_takes_no_memory_once_given_back) {
  page_buffer buffer(65536);
  ASSERT_EQ(buffer.space().size(), 65536U);
  std::fill(buffer.space().begin(), buffer.space().end(), 'x');
  buffer.give_back();
  EXPECT_EQ(std::count(buffer.space().begin(), buffer.space().end(), '\0'), 65536);
  buffer.space()[65535] = 'y';
  EXPECT_EQ(buffer.space()[65535], 'y');
}

TEST(page_buffer, is_empty_where_there_is_no_memory) {
  const no_faults_afterwards restore;
  faults.mmap = [](void*, std::size_t, int, int, int, off_t) {
    errno = ENOMEM;
    return MAP_FAILED;
  };
  page_buffer buffer(65536);
  EXPECT_TRUE(buffer.space().empty());
  buffer.give_back();
}
