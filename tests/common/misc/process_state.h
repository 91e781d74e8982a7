#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <set>
#include <string>

#include "tests/support/scratch_dir.h"

/// What tests change in the state of their process, and how they look at it.

/// Paths of such a test are relative to an empty working directory.
class scratch_test : public testing::Test {
 protected:
  scratch_dir scratch_;
  working_dir inside_{scratch_.path()};
};

/// Puts a value into the environment for as long as the object lives.
class changed_variable final {
 public:
  changed_variable(const char* name, const std::string& value) : name_(name) {
    const char* const before = std::getenv(name);
    if (before != nullptr) before_ = before;
    ::setenv(name, value.c_str(), 1);
  }
  changed_variable(const changed_variable&) = delete;
  changed_variable& operator=(const changed_variable&) = delete;
  ~changed_variable() {
    if (before_) {
      ::setenv(name_, before_->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> before_;
};

class changed_umask final {
 public:
  explicit changed_umask(mode_t mask) : before_(::umask(mask)) {}
  changed_umask(const changed_umask&) = delete;
  changed_umask& operator=(const changed_umask&) = delete;
  ~changed_umask() { ::umask(before_); }

 private:
  mode_t before_;
};

/// Lets the process open nothing more for as long as the object lives.
class no_more_descriptors final {
 public:
  no_more_descriptors() {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    rlimit none = before_;
    none.rlim_cur = 0;
    ::setrlimit(RLIMIT_NOFILE, &none);
  }
  no_more_descriptors(const no_more_descriptors&) = delete;
  no_more_descriptors& operator=(const no_more_descriptors&) = delete;
  ~no_more_descriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

inline std::set<int> open_descriptors() {
  std::set<int> open;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    open.insert(std::stoi(entry.path().filename().string()));
  }
  // The directory itself was open while it was read.
  std::erase_if(open, [](int fd) { return ::fcntl(fd, F_GETFD) < 0; });
  return open;
}

inline mode_t mode_of(const std::filesystem::path& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

/// Makes nested directories below `root`, the working directory, and enters the deepest.
/// @return its path, which is exactly `length` bytes long.
inline std::filesystem::path enter_deep_dir(const std::filesystem::path& root, std::size_t length) {
  std::string path = root.string();
  while (path.size() < length) {
    const std::size_t left = length - path.size() - 1;
    // Never leave a rest of one byte: it would have to be a "/" at the end.
    const std::string part(left == 101 ? 99 : std::min<std::size_t>(left, 100), 'd');
    std::filesystem::create_directory(part);
    EXPECT_EQ(::chdir(part.c_str()), 0);
    path += '/' + part;
  }
  EXPECT_EQ(path.size(), length);
  return path;
}
