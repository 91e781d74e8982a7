#include "common/misc/small_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>

#include "common/misc/unique_fd.h"
#include "tests/support/channel.h"
#include "tests/support/fault.h"
#include "tests/support/scratch_dir.h"

namespace {

TEST(small_file, is_read_whole_whatever_its_size) {
  const scratch_dir scratch;
  for (const std::size_t size : {0U, 1U, 2048U, 2049U, 4095U, 4096U, 4097U, 8192U, 100000U}) {
    const std::string text(size, 'x');
    scratch.write("file", text);
    std::string read = "from before";
    EXPECT_TRUE(read_small_file(AT_FDCWD, scratch.file("file").c_str(), read));
    EXPECT_EQ(read, text) << size;
  }
}

TEST(small_file, is_named_relative_to_the_directory) {
  const scratch_dir scratch;
  scratch.write("file", "text");
  const unique_fd directory(::open(scratch.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  std::string read;
  EXPECT_TRUE(read_small_file(directory.get(), "file", read));
  EXPECT_EQ(read, "text");
}

TEST(small_file, that_cannot_be_read_gives_nothing_but_the_reason) {
  const scratch_dir scratch;
  std::string read = "from before";
  EXPECT_FALSE(read_small_file(AT_FDCWD, scratch.file("none").c_str(), read));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(read, "");
  EXPECT_FALSE(read_small_file(AT_FDCWD, scratch.path().c_str(), read));
  EXPECT_EQ(errno, EISDIR);
}

TEST(small_file, that_is_a_pipe_is_not_waited_for) {
  const scratch_dir scratch;
  ASSERT_EQ(::mkfifo(scratch.file("pipe").c_str(), 0600), 0);
  std::string read;
  EXPECT_TRUE(read_small_file(AT_FDCWD, scratch.file("pipe").c_str(), read));
  EXPECT_EQ(read, "");
}

TEST(small_file, is_read_on_after_a_signal) {
  const scratch_dir scratch;
  scratch.write("file", "text");
  const no_faults_afterwards clean_up;
  int calls = 0;
  faults.read = [&calls](int fd, void* out, std::size_t size) -> ssize_t {
    if (++calls < 3) {
      errno = EINTR;
      return -1;
    }
    return real::read(fd, out, size);
  };
  std::string read;
  EXPECT_TRUE(read_small_file(AT_FDCWD, scratch.file("file").c_str(), read));
  EXPECT_EQ(read, "text");
}

TEST(small_file, that_has_no_end_is_none) {
  std::string read = "from before";
  EXPECT_FALSE(read_small_file(AT_FDCWD, "/dev/zero", read));
  EXPECT_EQ(errno, EFBIG);
  EXPECT_EQ(read, "");
}

TEST(read_to_end, stops_at_more_than_is_wanted) {
  const scratch_dir scratch;
  const auto can_read = [&](std::size_t size, std::size_t most) {
    scratch.write("file", std::string(size, 'x'));
    const unique_fd file(::open(scratch.file("file").c_str(), O_RDONLY | O_CLOEXEC));
    std::string read;
    return read_to_end(file.get(), read, most) || errno != EFBIG;
  };
  EXPECT_TRUE(can_read(9999, 10000));
  EXPECT_TRUE(can_read(10000, 10000));
  EXPECT_FALSE(can_read(10001, 10000));
}

TEST(read_to_end, appends_what_is_there) {
  channel pipe = make_pipe();
  const std::string text(20000, 'x');
  ASSERT_TRUE(write_whole(pipe.writer.get(), text));
  pipe.writer.reset();
  std::string read = "before ";
  EXPECT_TRUE(read_to_end(pipe.reader.get(), read));
  EXPECT_EQ(read, "before " + text);
}

TEST(read_to_end, says_why_it_could_not_go_on) {
  const channel pipe = make_pipe();
  std::string read;
  EXPECT_FALSE(read_to_end(pipe.reader.get(), read));
  EXPECT_EQ(errno, EAGAIN) << "the other end is open and silent";
}

TEST(write_whole, goes_on_after_a_signal_and_after_a_write_of_less) {
  const channel pipe = make_pipe();
  const no_faults_afterwards clean_up;
  int calls = 0;
  faults.write = [&calls](int fd, const void* text, std::size_t size) -> ssize_t {
    if (++calls % 2 == 1) {
      errno = EINTR;
      return -1;
    }
    return real::write(fd, text, std::min<std::size_t>(size, 3));
  };
  EXPECT_TRUE(write_whole(pipe.writer.get(), "ten bytes."));
  EXPECT_EQ(read_all(pipe), "ten bytes.");
  EXPECT_EQ(calls, 8);
}

TEST(write_whole, fails_where_nothing_is_taken) {
  const channel pipe = make_pipe();
  const no_faults_afterwards clean_up;
  faults.write = [](int, const void*, std::size_t) -> ssize_t {
    errno = 0;
    return 0;
  };
  EXPECT_FALSE(write_whole(pipe.writer.get(), "text"));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_TRUE(write_whole(pipe.writer.get(), ""));
}

}  // namespace
