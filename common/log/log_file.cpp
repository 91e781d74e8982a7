#include "common/log/log_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <tuple>

Tlog_file* g_logFile = nullptr;

namespace {

constexpr std::size_t kTimeSize = 128;

/// How often the time zone has been read, from 1.
std::atomic<unsigned> zone_number{1};

/// Asks the libc once for each second: it changes its own static data, and every page that is
/// changed after a fork is one more for that child.
const std::tm& local_time(std::time_t now) {
  static thread_local constinit struct {
    unsigned zone;
    std::time_t second;
    std::tm local;
  } last{};
  const unsigned zone = zone_number.load();
  if (last.zone != zone || last.second != now) {
    ::localtime_r(&now, &last.local);
    last.zone = zone;
    last.second = now;
  }
  return last.local;
}

/// Formats the local time into `out`.
/// @return the length of the text.
std::size_t format_local_time(char (&out)[kTimeSize]) {
  const std::tm& local = local_time(std::time(nullptr));
  const int length =
      std::snprintf(out, sizeof out, "%d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900,
                    local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  return length < 0 ? 0 : static_cast<std::size_t>(length);
}

/// Takes back the beginning of a text that a full disk has cut: the next one would be on the same
/// line. A pipe cannot be shortened and keeps it.
void take_back(std::FILE* file, std::size_t count) {
  struct stat status {};
  const int fd = ::fileno(file);
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return;
  // Where that fails it stays, and the next text comes behind it.
  std::ignore = ::ftruncate(fd, status.st_size - static_cast<off_t>(count));
}

}  // namespace

Tlog_file::~Tlog_file() {
  close_file();
}

bool Tlog_file::create_log_file(const char* path, bool remove_first) {
  if (path == nullptr) return false;
  if (remove_first) std::remove(path);
  log_fp = std::fopen(path, "ab+e");
  // Without a buffer each fwrite is one write, and one write to a file opened for appending
  // lands at its end as a whole.
  if (log_fp != nullptr) std::setvbuf(log_fp, nullptr, _IONBF, 0);
  return log_fp != nullptr;
}

void Tlog_file::append_log(const char* text, int length) {
  if (text == nullptr || log_fp == nullptr) return;
  const std::size_t count =
      length == -1 ? std::strlen(text) : static_cast<std::size_t>(length > 0 ? length : 0);
  if (count == 0) return;
  const std::size_t written = std::fwrite(text, 1, count, log_fp);
  std::fflush(log_fp);
  if (written > 0 && written < count) take_back(log_fp, written);
}

void Tlog_file::append_time() {
  char line[kTimeSize] = {};
  std::size_t length = format_local_time(line);
  line[length++] = '\r';
  line[length++] = '\n';
  append_log(line, static_cast<int>(length));
}

void Tlog_file::read_time_zone() {
  ::tzset();
  zone_number.fetch_add(1);
}

void Tlog_file::write_pair(const char* format, const char* name, long long value) {
  char line[256] = {};
  // The two formats are in the callers below; a compiler cannot see that from here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::snprintf(line, sizeof line, format, name == nullptr ? "" : name,
                static_cast<unsigned long>(value));
#pragma GCC diagnostic pop
  append_log(line, -1);
}

void Tlog_file::add_log_string(const char* name, long long value) {
  write_pair("debug_log: %s: %lu\n", name, value);
  append_time();
}

void Tlog_file::add_log_string2(const char* name1, long long value1, const char* name2,
                                long long value2) {
  write_pair("debug_log: %s: %lu  ", name1, value1);
  write_pair("debug_log: %s: %lu\n", name2, value2);
  append_time();
}

void Tlog_file::add_pure_string(const char* /*first*/, const char* /*second*/) {
  append_time();
}

void Tlog_file::get_date_time(char* out) const {
  if (out == nullptr) return;
  char text[kTimeSize] = {};
  const std::size_t length = format_local_time(text);
  std::memcpy(out, text, length + 1);
}

void Tlog_file::close_file() {
  if (log_fp == nullptr) return;
  append_log(closing_line(finish_flag), -1);
  std::fclose(log_fp);
  log_fp = nullptr;
}

const char* Tlog_file::closing_line(bool finished) {
  return finished ? "finish for close log file. \n"
                  : "XXXXXXXXXXX No finish for close log file. \n";
}
