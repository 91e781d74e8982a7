#include "common/daemon/start_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <thread>

#include "common/daemon/sys_daemon.h"
#include "common/misc/unique_fd.h"
#include "tests/support/captured_output.h"
#include "tests/support/fault.h"
#include "tests/support/in_child.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/wait_until.h"

namespace {

/// Whether another start could take the lock on the working directory now.
bool is_free() {
  const unique_fd directory(::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return ::flock(directory.get(), LOCK_EX | LOCK_NB) == 0;
}

class start_lock_in_a_directory : public testing::Test {
 protected:
  scratch_dir scratch_;
  working_dir inside_{scratch_.path()};
  no_faults_afterwards clean_up_;
};

TEST_F(start_lock_in_a_directory, keeps_other_starts_out_until_it_is_released) {
  start_lock lock;
  EXPECT_TRUE(is_free());
  lock.acquire();
  EXPECT_FALSE(is_free());
  lock.release();
  EXPECT_TRUE(is_free());
}

TEST_F(start_lock_in_a_directory, leaves_nothing_in_the_directory) {
  start_lock lock;
  lock.acquire();
  EXPECT_TRUE(std::filesystem::is_empty("."));
  lock.release();
}

TEST_F(start_lock_in_a_directory, goes_with_its_object) {
  {
    start_lock lock;
    lock.acquire();
  }
  EXPECT_TRUE(is_free());
}

TEST_F(start_lock_in_a_directory, of_another_directory_is_another_lock) {
  start_lock lock;
  lock.acquire();
  std::filesystem::create_directory("other");
  const working_dir other(scratch_.path() / "other");
  EXPECT_TRUE(is_free());
}

TEST_F(start_lock_in_a_directory, can_be_released_without_having_been_taken) {
  start_lock lock;
  lock.release();
  lock.acquire();
  lock.release();
  lock.release();
  EXPECT_TRUE(is_free());
}

TEST_F(start_lock_in_a_directory, is_waited_for) {
  start_lock first;
  first.acquire();
  std::atomic<int> refused{0};
  std::atomic<bool> taken{false};
  faults.flock = [&](int fd, int operation) {
    const int result = real::flock(fd, operation);
    if (result != 0) ++refused;
    return result;
  };
  std::thread other([&] {
    start_lock second;
    second.acquire();
    taken = true;
    second.release();
  });
  EXPECT_TRUE(wait_until([&] { return refused > 1; }));
  EXPECT_FALSE(taken);
  first.release();
  other.join();
  EXPECT_TRUE(taken);
  EXPECT_TRUE(is_free());
}

TEST_F(start_lock_in_a_directory, is_passed_on_by_forks_and_survives_the_parents) {
  start_lock lock;
  lock.acquire();
  // A child that ends does not release it.
  const pid_t ends = ::fork();
  if (ends == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(ends, nullptr, 0), ends);
  EXPECT_FALSE(is_free());
  // One that releases it releases it for all.
  const pid_t releases = ::fork();
  if (releases == 0) {
    lock.release();
    ::_exit(0);
  }
  ASSERT_EQ(::waitpid(releases, nullptr, 0), releases);
  EXPECT_TRUE(is_free());
}

TEST(start_lock, that_cannot_be_taken_does_not_stop_the_start) {
  in_child([] {
    const std::filesystem::path gone = std::filesystem::current_path() / "gone";
    std::filesystem::create_directory(gone);
    std::filesystem::current_path(gone);
    std::filesystem::remove(gone);
    start_lock lock;
    lock.acquire();
    lock.release();
  });
}

TEST_F(start_lock_in_a_directory, is_held_from_the_check_until_the_pid_file_is_there) {
  in_child([] {
    static bool held_in_the_body = true;
    Tsys_daemon daemon("run.pid", [] { held_in_the_body = !is_free(); });
    ASSERT_TRUE(daemon.run_only_one());
    EXPECT_FALSE(is_free());
    faults.fork = [] { return 0; };
    daemon.init_daemon(".");
    EXPECT_FALSE(held_in_the_body);
    EXPECT_TRUE(std::filesystem::exists("run.pid"));
  });
}

TEST_F(start_lock_in_a_directory, is_given_back_by_a_start_that_finds_another_instance) {
  in_child([] {
    write_file("run.pid", "");
    const captured_output output(1);
    Tsys_daemon daemon("run.pid", [] {});
    ASSERT_FALSE(daemon.run_only_one());
    EXPECT_TRUE(is_free());
  });
}

}  // namespace
