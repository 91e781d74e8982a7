#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "control/site/file_tail.h"

namespace control {

/// One line of a program's log.
struct program_line {
  std::size_t log = 0;    ///< Which log it is of, for whoever reads several.
  std::int64_t time = 0;  ///< Microseconds since 1970.
  std::string text;       ///< Without its end.
};

/// Reads one log and its rotated files: first the last lines that are there, then what follows,
/// across rotations.
///
/// A line's time is the one in front of it. A line without one is as old as the line before it,
/// and where none has one, as old as the end of its file.
class program_lines final {
 public:
  /// Opens the log as it is now. What is written later belongs to `next`.
  /// @param log what its lines carry.
  program_lines(std::string path, std::size_t log);

  [[nodiscard]] const std::string& path() const { return file_.path(); }
  /// The last `count` lines, oldest first. A last line that is not complete is left to `next` if it
  /// is `to_be_continued`.
  std::vector<program_line> last(std::size_t count, bool to_be_continued);
  /// The lines that were completed since.
  std::vector<program_line> next();

 private:
  /// The newest rotated file, once `file` is open and has its name still.
  static std::int64_t open(file_tail& file, bool at_end);
  /// Reads the files that came between the one that is open and `newest`, which is one of them.
  void read_rotated(std::int64_t newest, std::vector<program_line>& out);
  /// Takes up what comes, and gives its complete lines.
  void feed(std::string_view piece, std::vector<program_line>& out);

  std::size_t log_;
  file_tail file_;
  std::int64_t newest_rotated_ = 0;  ///< When `file_` was opened.
  std::string begun_;                ///< The beginning of a line.
  std::int64_t last_stamp_ = 0;
};

/// Puts the lines of several logs into the order of their times. Those of one log stay in theirs.
std::vector<program_line> merge(std::vector<std::vector<program_line>> logs);

}  // namespace control
