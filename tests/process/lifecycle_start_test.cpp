#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

#include "process/child.h"
#include "process/lifecycle.h"
#include "tests/support/captured_output.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/text.h"

namespace {

TEST(lifecycle, waits_for_the_thread_that_forks) {
  in_child([] {
    const captured_output console(1);
    const captured_output errors(2);
    static std::atomic<int> refused{0};
    faults.pthread_create = [](pthread_t* thread, const pthread_attr_t* attributes,
                               void* (*body)(void*), void* argument) {
      if (++refused <= 2) return EAGAIN;
      return real::pthread_create(thread, attributes, body, argument);
    };
    // There is no configuration to be watched, so it returns.
    proc_start();
    EXPECT_EQ(count(errors.text(), "keelmond: no thread for starting programs"), 1U);
    EXPECT_GT(child::start_program("true"), 0);
  });
}

}  // namespace
