#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "common/misc/unique_fd.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/channel.h"
#include "tests/support/wait_until.h"

/// A log that takes no more when it is full, as one on a disk of another machine may do.
class slow_log final {
 public:
  explicit slow_log(const installation& place) {
    const std::string path = (place.site() / "keelmond.log").string();
    if (::mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("mkfifo");
    pipe_.reset(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    ::fcntl(pipe_.get(), F_SETPIPE_SZ, 4096);
  }

  void fill() const {
    while (::write(pipe_.get(), "\n", 1) == 1) {
    }
  }
  /// Lets the writers go on until `done`. @return what they have written.
  template <typename Condition>
  [[nodiscard]] std::string drain(Condition done) const {
    std::string text;
    const auto read_on = [&] {
      const bool last = done();
      text += read_all(pipe_.get());
      return last;
    };
    EXPECT_TRUE(wait_until(read_on));
    return text;
  }

 private:
  unique_fd pipe_;
};
