#pragma once

#include <cstdio>

/// An append-only text log: one stream, no levels, no rotation, no size limit.
///
/// The object is either open or closed. Every write is one append of the whole text to the end of
/// the file, made at once: nothing stays in a buffer that a forked child could write again, and no
/// other thread or process can get into the middle of it. A message and the line with its time are
/// two writes, so lines of other threads may stand between them.
///
/// All members but the constructor, `create_log_file`, `close_file` and the destructor may be
/// called from any thread at the same time. Errors in writing are ignored.
class Tlog_file final {
 public:
  Tlog_file() = default;
  Tlog_file(const Tlog_file&) = delete;
  Tlog_file& operator=(const Tlog_file&) = delete;
  /// Writes the closing line, if the log is open, and closes it.
  ~Tlog_file();

  /// Opens the log at `path` for appending; creates it when it is missing.
  /// @param remove_first removes an existing file first. The supervisor never does: its log grows
  ///        across runs.
  /// @return whether the log is open. A null `path` changes nothing and returns false. A stream
  ///         that is already held is not closed.
  bool create_log_file(const char* path, bool remove_first);

  /// Appends `length` bytes of `text`, or all of it when `length` is -1.
  ///
  /// Nothing is written for a null or empty text, for any other length below 1, or while the log
  /// is closed. A text that the disk has no room for is not written in part either, as long as one
  /// thread writes at a time.
  void append_log(const char* text, int length);

  /// Appends the local time as "%d-%02d-%02d %02d:%02d:%02d" and "\r\n", when the log is open.
  void append_time();

  /// Reads the machine's time zone again, which all times from now on are in.
  static void read_time_zone();

  /// Appends "debug_log: %s: %lu\n" and a time line. A negative value shows as its two's
  /// complement. The line is cut at 255 bytes. Its bare LF is part of the interface: whoever splits
  /// the log at CR LF joins it to the line behind it.
  void add_log_string(const char* name, long long value);

  /// Appends two pairs on one "debug_log" line (the first pair ends in two blanks) and a time line.
  void add_log_string2(const char* name1, long long value1, const char* name2, long long value2);

  /// Appends a time line, to mark a moment. Both texts are ignored, which is part of the interface.
  void add_pure_string(const char* first, const char* second);

  /// Writes the local time to `out` as in a time line, without a line end: 20 bytes with the
  /// terminator. A null `out` is left alone.
  void get_date_time(char* out) const;

  /// Writes the closing line and closes the log; does nothing when it is closed.
  void close_file();

  /// The line that ends a log: the one for a finished log, or the other one.
  static const char* closing_line(bool finished);

 private:
  void write_pair(const char* format, const char* name, long long value);

  std::FILE* log_fp = nullptr;
  /// Nothing ever sets it. A log that ends with the line for an unfinished one is how a normal end
  /// of the supervisor is recognised.
  bool finish_flag = false;
};

/// The supervisor's log. Created by `main`, deleted and set to null by `proc_stop`.
extern Tlog_file* g_logFile;
