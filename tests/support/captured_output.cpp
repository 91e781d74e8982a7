#include "tests/support/captured_output.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

captured_output::captured_output(int fd)
    : captured_(fd),
      before_(::fcntl(fd, F_DUPFD_CLOEXEC, 10)),
      file_(::memfd_create("captured", MFD_CLOEXEC)) {
  std::fflush(stdout);
  if (!before_.valid() || !file_.valid() || ::dup2(file_.get(), captured_) < 0) {
    throw std::runtime_error("cannot capture the output");
  }
}

captured_output::~captured_output() {
  std::fflush(stdout);
  ::dup2(before_.get(), captured_);
}

std::string captured_output::text() const {
  std::fflush(stdout);
  std::string all;
  char part[4096];
  for (;;) {
    const ssize_t got = ::pread(file_.get(), part, sizeof part, static_cast<off_t>(all.size()));
    if (got <= 0) return all;
    all.append(part, static_cast<std::size_t>(got));
  }
}
