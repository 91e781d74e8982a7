#include "tests/common/misc/opened_files.h"

#include <fcntl.h>

#include <cstdarg>
#include <cstdio>

namespace {

bool watching = false;
int opened = 0;
int kept_open = 0;

void look_at(int fd) {
  if (!watching || fd < 0) return;
  ++opened;
  if ((::fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) ++kept_open;
}

std::FILE* looked_at(std::FILE* stream) {
  if (stream != nullptr) look_at(::fileno(stream));
  return stream;
}

}  // namespace

opened_files::opened_files() {
  opened = 0;
  kept_open = 0;
  watching = true;
}

opened_files::~opened_files() {
  watching = false;
}

int opened_files::count() {
  return opened;
}

int opened_files::inheritable() {
  return kept_open;
}

extern "C" {

int __real_open(const char* path, int flags, ...);
std::FILE* __real_fopen(const char* path, const char* mode);
std::FILE* __real_popen(const char* command, const char* mode);

int __wrap_open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
    va_list rest;
    va_start(rest, flags);
    mode = va_arg(rest, mode_t);
    va_end(rest);
  }
  const int fd = __real_open(path, flags, mode);
  look_at(fd);
  return fd;
}

std::FILE* __wrap_fopen(const char* path, const char* mode) {
  return looked_at(__real_fopen(path, mode));
}

std::FILE* __wrap_popen(const char* command, const char* mode) {
  return looked_at(__real_popen(command, mode));
}

}  // extern "C"
